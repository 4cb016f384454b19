// The clients of a run: opening their connections, keeping them alive, ending them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "connection.h"
#include "histogram.h"
#include "options.h"
#include "packets.h"

namespace zeb_load {

struct client : connection {
    enum class phase : uint8_t { unopened, connecting, greeting, subscribing, ready, gone };

    std::string id;
    std::vector<std::string> filters;
    int receive_bytes = 0;  // size of the socket's buffer, 0 for the system's
    phase state = phase::unopened;
    size_t subscribed = 0;  // filters that were sent so far
    size_t awaited = 0;     // of which the last SUBSCRIBE had so many
    uint64_t started_ns = 0;
};

struct open_result {
    uint64_t opened = 0;
    uint64_t failed = 0;
    uint64_t took_ns = 0;
    bool timed_out = false;
    std::string reason;  // of the first failure
    histogram latencies_ns;
};

class opener {
  public:
    opener(poller &poll, receive_buffer &buffer, const endpoint &to, const options &o)
        : poll_(poll), buffer_(buffer), to_(to), options_(o) {}

    // Connect all, --window at a time, and subscribe their filters. Ends early when nothing moves any more,
    // and after the first failure unless told to go on. The vector must not move while the clients live.
    open_result open(std::vector<client> &clients, bool go_on);

  private:
    void start(client &c);
    void handle(client &c, uint32_t events);
    void connected(client &c);
    void read(client &c);
    bool take(client &c, const packet &p);
    bool subscribe_or_finish(client &c);
    void fail(client &c, const std::string &why);

    poller &poll_;
    receive_buffer &buffer_;
    const endpoint &to_;
    const options &options_;
    uint64_t in_progress_ = 0;
    uint64_t last_progress_ns_ = 0;
    open_result result_;
};

// Sends PINGREQ twice in a keep-alive time to each client, spread evenly.
class pinger {
  public:
    pinger(std::vector<client> &clients, uint64_t keepalive_s, uint64_t start_ns);
    // When the next is due; UINT64_MAX without keep-alive.
    uint64_t next_ns() const { return next_ns_; }
    void run(poller &poll, uint64_t now);

  private:
    std::vector<client> &clients_;
    uint64_t step_ns_ = 0;
    uint64_t next_ns_ = UINT64_MAX;
    size_t at_ = 0;
};

// Send DISCONNECT and wait a little until the broker has closed: it is done with them then.
void close_clients(poller &poll, receive_buffer &buffer, std::vector<client> &clients);

// Raise the limit of open files as far as it goes; false when so many connections do not fit.
bool room_for(uint64_t connections);

}  // namespace zeb_load
