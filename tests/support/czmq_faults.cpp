// The linker sends the library's calls here (--wrap), and ours on to czmq.
#include "czmq_faults.hpp"

#include <czmq.h>

using tolvan::test::czmq_faults;

extern "C" {
zsock_t* __real_zsock_new_checked(int type, const char* file, size_t line);
int __real_zmsg_send(zmsg_t** message, void* socket);

zsock_t* __wrap_zsock_new_checked(int type, const char* file, size_t line) {
    return czmq_faults::refuse_socket ? nullptr : __real_zsock_new_checked(type, file, line);
}

int __wrap_zmsg_send(zmsg_t** message, void* socket) {
    return czmq_faults::refuse_send ? -1 : __real_zmsg_send(message, socket);
}
}
