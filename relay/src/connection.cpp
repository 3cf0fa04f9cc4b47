#include "connection.hpp"

#include <algorithm>
#include <cerrno>
#include <fstream>

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <tolvan/wire/descriptor.hpp>

namespace tolvan::relay {
namespace {

// Tells a socket from others that get its descriptor later; 0 for what is no socket any more.
ino_t inode_of(int descriptor) {
    struct stat found {};
    return fstat(descriptor, &found) == 0 && S_ISSOCK(found.st_mode) ? found.st_ino : 0;
}

std::string command_of(pid_t process) {
    std::ifstream file("/proc/" + std::to_string(process) + "/comm");
    std::string command;
    if (!std::getline(file, command)) return "";
    // A process chooses its name, and the name ends up on a terminal.
    std::replace_if(
        command.begin(), command.end(), [](char c) { return c < ' ' || c > '~'; }, '?');
    return " (" + command + ")";
}

std::string process_at(int descriptor) {
    ucred owner{};
    socklen_t size = sizeof owner;
    getsockopt(descriptor, SOL_SOCKET, SO_PEERCRED, &owner, &size);
    if (owner.pid == 0) return "a process that cannot be seen from here";
    return "process " + std::to_string(owner.pid) + command_of(owner.pid);
}

std::string ipv4_text(const sockaddr_storage& address) {
    const auto& ip = reinterpret_cast<const sockaddr_in&>(address);
    char host[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &ip.sin_addr, host, sizeof host);
    return std::string(host) + ":" + std::to_string(ntohs(ip.sin_port));
}

std::string ipv6_text(const sockaddr_storage& address) {
    const auto& ip = reinterpret_cast<const sockaddr_in6&>(address);
    char host[INET6_ADDRSTRLEN] = "";
    inet_ntop(AF_INET6, &ip.sin6_addr, host, sizeof host);
    return "[" + std::string(host) + "]:" + std::to_string(ntohs(ip.sin6_port));
}

sockaddr_storage address_of(int descriptor) {
    sockaddr_storage address{};
    socklen_t size = sizeof address;
    getpeername(descriptor, reinterpret_cast<sockaddr*>(&address), &size);
    return address;
}

bool is_tcp(int descriptor) {
    const auto family = address_of(descriptor).ss_family;
    return family == AF_INET || family == AF_INET6;
}

std::string name_of(int descriptor) {
    const sockaddr_storage address = address_of(descriptor);
    if (address.ss_family == AF_INET) return ipv4_text(address);
    if (address.ss_family == AF_INET6) return ipv6_text(address);
    return address.ss_family == AF_UNIX ? process_at(descriptor) : "a peer that left at once";
}

// libzmq keeps nothing for a peer as long as the kernel takes it: a heartbeat that a stopped process has not
// read, or the greeting of a stranger, is no reason to blame it.
bool has_room(int descriptor) {
    pollfd asked{descriptor, POLLOUT, 0};
    return poll(&asked, 1, 0) != 0;
}

// Over tcp the kernel of a frozen peer takes small things, such as heartbeats, so that only what comes
// counts.
steady::duration since_last_receipt(int descriptor) {
    tcp_info info{};
    socklen_t size = sizeof info;
    getsockopt(descriptor, IPPROTO_TCP, TCP_INFO, &info, &size);
    return std::chrono::milliseconds(info.tcpi_last_data_recv);
}

}  // namespace

connection::connection(int descriptor, steady::time_point now)
    : number(descriptor),
      over_tcp(is_tcp(descriptor)),
      inode(inode_of(descriptor)),
      name(name_of(descriptor)),
      moved(now),
      had_room(now),
      last_sign(now) {}

void connection::look(steady::time_point now) {
    int bytes = 0;
    if (inode == 0 || inode_of(number) != inode || ioctl(number, SIOCOUTQ, &bytes) == -1) return;
    note_unsent(bytes, now);
    full = bytes > 0 && !has_room(number);
    if (!full) had_room = now;
    if (over_tcp) last_sign = now - since_last_receipt(number);
}

// More than before may be a heartbeat of the hub's own, and is no sign of the peer's.
void connection::note_unsent(int bytes, steady::time_point now) {
    const bool has_taken_some = bytes == 0 || bytes < unsent;
    if (has_taken_some) last_sign = now;
    if (has_taken_some) given_up = false;
    if (bytes != unsent) moved = now;
    unsent = bytes;
}

// The check is made on a duplicate, which nobody else can close and whose number nobody else can get.
bool connection::cut() {
    const wire::descriptor same(fcntl(number, F_DUPFD_CLOEXEC, 0));
    if (same.get() == -1 && errno == EMFILE) return false;
    was_cut = true;
    if (inode != 0 && inode_of(same.get()) == inode) shutdown(same.get(), SHUT_RDWR);
    return true;
}

}  // namespace tolvan::relay
