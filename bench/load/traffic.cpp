#include "traffic.h"

#include <algorithm>
#include <memory>
#include <vector>

#include "cast.h"
#include "clock.h"
#include "process_usage.h"
#include "publishing.h"
#include "schedule.h"

namespace zeb_load {

namespace {

// No timer is finer: what falls due meanwhile is sent together.
constexpr uint64_t k_quantum_ns = 50 * k_ns_per_us;
constexpr uint64_t k_slow_tick_ns = 50 * k_ns_per_ms;
constexpr uint64_t k_idle_ns = 100 * k_ns_per_ms;
constexpr uint64_t k_no_time = UINT64_MAX;

class traffic {
  public:
    traffic(const options &o, const endpoint &to, uint16_t run, uint64_t rate)
        : options_(o),
          to_(to),
          run_(run),
          buffer_(static_cast<size_t>(o.payload) + k_max_packet_overhead),
          cast_(make_cast(o)) {
        out_.rate = rate;
    }

    outcome run();

  private:
    bool open();
    void prepare(uint64_t start);
    void loop();
    void tick(uint64_t now);
    void enter_window();
    void enter_drain(uint64_t now);
    uint64_t wake_at(uint64_t now) const;
    void handle(client &c, uint32_t events);
    void read(client &c, size_t limit);
    void read_slowly(uint64_t now);
    void pump(size_t i, uint64_t now);
    void pump_due(uint64_t now);
    void lost_client(client &c);
    bool complete() const;
    void check_alive();
    void settle();

    const options &options_;
    const endpoint &to_;
    const uint16_t run_;
    poller poll_;
    receive_buffer buffer_;
    std::vector<client> cast_;
    std::vector<publish_head> heads_;
    window window_;
    uint64_t end_ns_ = 0;  // of the drain
    std::unique_ptr<schedule> when_;
    std::unique_ptr<publishing> publishers_;
    std::unique_ptr<receiving> receivers_;
    std::unique_ptr<pinger> pinger_;

    enum class phase : uint8_t { warmup, measure, drain } phase_ = phase::warmup;
    uint64_t next_number_ = 0;  // the first that the paced sending has not come to
    uint64_t next_pump_ns_ = 0;
    uint64_t next_slow_ns_ = k_no_time;
    uint64_t last_slow_ns_ = 0;
    double slow_allowance_ = 0;  // bytes that each slow one may read now
    std::vector<size_t> again_;  // publishers that stopped at what one write holds
    std::vector<size_t> again_now_;
    process_usage before_;
    double own_before_s_ = 0;
    outcome out_;
};

bool traffic::open() {
    opener open_all(poll_, buffer_, to_, options_);
    const open_result opened = open_all.open(cast_, false);
    if (opened.failed > 0) {
        out_.error = opened.reason;
        return false;
    }
    process_usage usage;
    if (options_.pid != 0 && read_usage(static_cast<pid_t>(options_.pid), usage))
        out_.broker_connected_kib = usage.resident_kib;
    return true;
}

void traffic::prepare(uint64_t start) {
    window_.begin_ns = start + to_ns(options_.warmup_s);
    window_.end_ns = window_.begin_ns + to_ns(options_.seconds);
    end_ns_ = window_.end_ns + to_ns(options_.drain_s);
    const uint64_t burst_ns = options_.pace == "burst" ? options_.burst_ms * k_ns_per_ms : 0;
    if (out_.rate > 0) when_ = std::make_unique<schedule>(out_.rate, burst_ns, start);
    publishers_ = std::make_unique<publishing>(poll_, options_, run_, when_.get(), window_);
    for (size_t t = 0; t < options_.topics; ++t)
        heads_.push_back(
            make_publish_head(topic_name(options_, t), static_cast<uint8_t>(options_.qos), options_.payload));
    for (client &c : cast_) {
        if (c.kind == role::publisher) publishers_->add(c, heads_[c.index % heads_.size()]);
        if (c.kind == role::slow) poll_.watch(c, false, c.wants_output);
    }
    receivers_ = std::make_unique<receiving>(poll_, options_, run_, *publishers_, window_);
    pinger_ = std::make_unique<pinger>(cast_, options_.keepalive_s, start);
    again_.reserve(publishers_->size());
    again_now_.reserve(publishers_->size());
    last_slow_ns_ = start;
    if (options_.slow > 0) next_slow_ns_ = start + k_slow_tick_ns;
}

outcome traffic::run() {
    if (!poll_.works()) {
        out_.error = "no epoll instance";
        return out_;
    }
    if (!open()) {
        close_clients(poll_, buffer_, cast_);
        return out_;
    }
    prepare(now_ns());
    loop();
    settle();
    close_clients(poll_, buffer_, cast_);
    return out_;
}

void traffic::loop() {
    uint64_t now = now_ns();
    // At full speed each starts once and goes on whenever its socket, or an acknowledgement, lets it.
    for (size_t i = 0; out_.rate == 0 && i < publishers_->size(); ++i) again_.push_back(i);
    while (out_.error.empty()) {
        now = now_ns();
        tick(now);
        if (phase_ == phase::drain && (now >= end_ns_ || complete())) return;
        const uint64_t until = wake_at(now);
        for (const epoll_event &event : poll_.wait(until > now ? until - now : 0)) {
            handle(*static_cast<client *>(static_cast<connection *>(event.data.ptr)), event.events);
            if (!out_.error.empty()) return;
        }
    }
}

// Everything that time alone brings about.
void traffic::tick(uint64_t now) {
    if (phase_ == phase::warmup && now >= window_.begin_ns) enter_window();
    if (phase_ != phase::drain) {
        if (now >= window_.end_ns)
            enter_drain(now);
        else
            pump_due(now);
    }
    if (now >= next_slow_ns_) read_slowly(now);
    pinger_->run(poll_, now);
}

void traffic::enter_window() {
    phase_ = phase::measure;
    if (options_.pid != 0 && read_usage(static_cast<pid_t>(options_.pid), before_)) out_.broker_cpu_s = 0;
    own_before_s_ = own_cpu_s();
}

// What was due in time is sent as far as the sockets take it; at full speed nothing is due any more.
void traffic::enter_drain(uint64_t now) {
    phase_ = phase::drain;
    again_.clear();
    for (size_t i = 0; i < publishers_->size() && out_.error.empty(); ++i) {
        do {
            again_.clear();
            pump(i, now);
        } while (!again_.empty() && out_.error.empty());
    }
    again_.clear();
}

uint64_t traffic::wake_at(uint64_t now) const {
    if (phase_ != phase::drain && !again_.empty()) return 0;
    uint64_t at = std::min({now + k_idle_ns, next_slow_ns_, pinger_->next_ns()});
    if (phase_ == phase::warmup) at = std::min(at, window_.begin_ns);
    if (phase_ == phase::drain) return std::min(at, end_ns_);
    return std::min({at, window_.end_ns, out_.rate > 0 ? next_pump_ns_ : k_no_time});
}

void traffic::pump(size_t i, uint64_t now) {
    const publishing::pumped result = publishers_->pump(i, now);
    if (result == publishing::pumped::more) again_.push_back(i);
    if (result == publishing::pumped::broken) {
        out_.error = "a publisher's connection broke";
        out_.broken = true;
    }
}

void traffic::pump_due(uint64_t now) {
    again_now_.swap(again_);
    again_.clear();
    for (const size_t i : again_now_) pump(i, now);
    if (out_.rate == 0 || now < next_pump_ns_) return;
    // Numbers go round the publishers, and pumping one sends all that it is due.
    const size_t publishers = publishers_->size();
    for (size_t i = 0; i < publishers && when_->due_ns(next_number_) <= now; ++i, ++next_number_)
        pump(static_cast<size_t>(next_number_ % publishers), now);
    if (when_->due_ns(next_number_) <= now) next_number_ = when_->first_at(now + 1);
    next_pump_ns_ = std::max(when_->due_ns(next_number_), now + k_quantum_ns);
}

void traffic::handle(client &c, uint32_t events) {
    if (c.fd < 0) return;
    if ((events & EPOLLOUT) != 0) {
        if (!flush(poll_, c)) return lost_client(c);
        if (c.kind == role::publisher && c.unsent.empty() && phase_ != phase::drain) pump(c.index, now_ns());
    }
    if ((events & EPOLLIN) != 0) return read(c, receive_buffer::k_receive_bytes);
    if ((events & (EPOLLERR | EPOLLHUP)) != 0) lost_client(c);
}

void traffic::read(client &c, size_t limit) {
    const uint8_t *at = nullptr;
    const uint8_t *end = nullptr;
    const receive_buffer::result got = buffer_.receive(c, at, end, limit);
    if (got == receive_buffer::result::nothing) return;
    if (got == receive_buffer::result::closed) return lost_client(c);
    const uint64_t now = now_ns();
    bool fine = true;
    if (c.kind == role::publisher)
        fine = publishers_->acknowledge(c.index, at, end);
    else if (c.kind == role::other)
        at = end;
    else
        fine = receivers_->take(c, now, at, end);
    if (!fine || !buffer_.keep(c, at, end)) return lost_client(c);
    if (c.kind == role::publisher && publishers_->held(c.index) && phase_ != phase::drain) pump(c.index, now);
}

void traffic::read_slowly(uint64_t now) {
    slow_allowance_ +=
        static_cast<double>(options_.slow_rate) * static_cast<double>(now - last_slow_ns_) / 1e9;
    last_slow_ns_ = now;
    next_slow_ns_ = now + k_slow_tick_ns;
    const size_t bytes = static_cast<size_t>(slow_allowance_);
    slow_allowance_ -= static_cast<double>(bytes);
    if (bytes == 0) return;
    for (client &c : cast_) {
        if (c.kind == role::slow && c.fd >= 0) read(c, bytes);
    }
}

// A broker may give up those who do not read; everybody else has to stay.
void traffic::lost_client(client &c) {
    poll_.close(c);
    if (c.kind == role::slow) {
        ++out_.slow_closed;
        return;
    }
    constexpr const char *k_names[] = {"publisher", "subscriber", "slow subscriber",
                                       "holder of other subscriptions"};
    out_.error = std::string("the connection of a ") + k_names[static_cast<size_t>(c.kind)] + " was lost";
    out_.broken = true;
}

bool traffic::complete() const {
    uint64_t expected = 0;
    for (size_t t = 0; t < options_.topics; ++t)
        expected += publishers_->published(t) * receivers_->copies(t);
    return receivers_->result().delivered >= expected && publishers_->settled();
}

// A broker that hangs loses messages too, but that is no result.
void traffic::check_alive() {
    std::vector<client> one(1);
    one[0].id = options_.prefix + "alive";
    opener open_one(poll_, buffer_, to_, options_);
    const open_result opened = open_one.open(one, false);
    if (opened.failed > 0) out_.error = "the broker does not answer any more: " + opened.reason;
    close_clients(poll_, buffer_, one);
}

void traffic::settle() {
    out_.load_cpu_s = own_cpu_s() - own_before_s_;
    process_usage usage;
    if (options_.pid != 0 && read_usage(static_cast<pid_t>(options_.pid), usage)) {
        if (out_.broker_cpu_s >= 0) out_.broker_cpu_s = usage.cpu_s - before_.cpu_s;
        out_.broker_kib = usage.resident_kib;
    }
    out_.got = receivers_->result();
    out_.published = publishers_->published();
    out_.offered = out_.published;
    if (when_) out_.offered = when_->first_at(window_.end_ns) - when_->first_at(window_.begin_ns);
    for (size_t t = 0; t < options_.topics; ++t)
        out_.expected += publishers_->published(t) * receivers_->copies(t);
    const size_t publishers = publishers_->size();
    for (size_t i = 0; i < publishers; ++i)
        out_.copies +=
            static_cast<double>(receivers_->copies(i % options_.topics)) / static_cast<double>(publishers);
    if (out_.error.empty() && (out_.lost() > 0 || out_.expected == 0 || !publishers_->settled()))
        check_alive();
}

}  // namespace

outcome run_traffic(const options &o, const endpoint &to, uint16_t run, uint64_t rate) {
    return traffic(o, to, run, rate).run();
}

}  // namespace zeb_load
