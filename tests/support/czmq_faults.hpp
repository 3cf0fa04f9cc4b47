#pragma once

namespace tolvan::test {

/// Failures that czmq cannot be talked into otherwise; czmq_faults.cpp stands between the library and czmq.
struct czmq_faults {
    static inline bool refuse_socket = false;
    static inline bool refuse_send = false;
    czmq_faults() = default;
    czmq_faults(const czmq_faults&) = delete;
    czmq_faults& operator=(const czmq_faults&) = delete;
    ~czmq_faults() { refuse_socket = refuse_send = false; }
};

}  // namespace tolvan::test
