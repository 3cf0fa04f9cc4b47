#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <tolvan/vesk/toolkit/probe_topic.hpp>
#include <tolvan/vesk/v1/publisher.hpp>
#include <tolvan/vesk/v1/reqrep_client.hpp>
#include <tolvan/vesk/v1/reqrep_server.hpp>
#include <tolvan/vesk/v1/subscriber.hpp>

#include "bus/pacer.hpp"
#include "bus/session.hpp"

namespace tolvan::vesk::tool {

/// What a phase sends.
struct bench_load {
    std::uint64_t count = 0;  ///< messages
    double rate = 0;          ///< messages a second; throughput has its own pace
    std::string data;

    /// So many are under way at most: what `vesk pub` leaves unconfirmed, and no more than the machine's
    /// memory holds easily.
    std::uint64_t most_outstanding() const;
};

/// Measured times, one a message.
struct measured_times {
    std::string key;         ///< in JSON
    std::string title;       ///< for people
    std::vector<double> ms;  ///< milliseconds
};

/// What has come of a phase.
struct phase_result {
    std::string key;    ///< in JSON
    std::string title;  ///< for people
    std::uint64_t sent = 0;
    std::uint64_t lost = 0;
    double per_second = 0;  ///< messages that have come back, from the first sending to the last return
    std::vector<measured_times> times{};
};

/// A part of the measuring: sends its messages and sees them come back. What receives them is there from the
/// construction on; all of it goes with the phase.
class bench_phase {
  public:
    bench_phase(const std::string& key, const std::string& title, const bench_load& given)
        : load(given), measured{key, title} {}
    bench_phase(const bench_phase&) = delete;
    bench_phase& operator=(const bench_phase&) = delete;
    virtual ~bench_phase() = default;

    /// Starts to send. Once the hub knows every subscription.
    virtual void start() = 0;

    const std::string& title() const { return measured.title; }

    /// Messages that have come back or are lost for certain.
    std::uint64_t settled() const { return returned + measured.lost; }
    double settled_share() const { return static_cast<double>(settled()) / static_cast<double>(load.count); }
    bool complete() const { return settled() == load.count; }

    /// What has come of it; messages that have not come back by now are lost.
    phase_result result() const;

  protected:
    using clock = std::chrono::steady_clock;

    /// Whether one more message may go out.
    bool may_send() const;

    /// Counts a message that goes out, and gives the time.
    clock::time_point note_sending();

    /// Counts a message that has come back.
    void note_return();

    static double ms_since(clock::time_point begin);

    const bench_load load;
    phase_result measured;

  private:
    std::uint64_t returned = 0;
    clock::time_point first_sending;
    clock::time_point last_return;
};

/// A phase whose messages are numbered publications.
class publishing_phase : public bench_phase {
  protected:
    using bench_phase::bench_phase;

    void publish_next();

    /// Takes note of a received number: one publisher's messages keep their order, so those that it has
    /// overtaken are lost. Whether it is a number that was awaited.
    bool in_order(toolkit::probe_topic::number received);

    const toolkit::probe_topic topic;
    std::vector<clock::time_point> sent_at;

  private:
    v1::publisher publisher;
    toolkit::probe_topic::number awaited = 0;
};

/// As many messages a second as come back to the notify callback with nothing lost.
class throughput_phase : public publishing_phase {
  public:
    throughput_phase(session& on, const bench_load& given);
    void start() override;

  private:
    void subscribe();
    void take(const std::string& received);

    session& process;
    std::unique_ptr<v1::subscriber> receiver;
    std::uint64_t undelivered = 0;  ///< messages that wait for their delivery to the receiver
    session::timer next_sending;
};

/// How long messages take to the notify callback, and to the handle callback.
class latency_phase : public publishing_phase {
  public:
    latency_phase(session& on, const bench_load& given);
    void start() override;

  private:
    void notified(const std::string& received);
    void handled(const std::string& received);

    session& process;
    v1::subscriber receiver;
    std::unique_ptr<pacer> pace;
};

/// How long requests take to their replies.
class round_trip_phase : public bench_phase {
  public:
    round_trip_phase(session& on, const bench_load& given);
    void start() override;

  private:
    void request();

    session& process;
    const std::string payload;
    std::string server_id;
    v1::reqrep_server server;
    v1::reqrep_client client;
    std::unique_ptr<pacer> pace;
};

}  // namespace tolvan::vesk::tool
