// What is read from disk: a directory with any files in the places of sessions, subscriptions, offline and
// retained messages, from which a broker starts, and whose clients then come back.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "fuzz/fuzz_check.h"
#include "fuzz/fuzz_clock.h"
#include "fuzz/fuzz_directory.h"
#include "fuzz/fuzz_input.h"
#include "fuzz/retain_image.h"
#include "fuzz/topic_reference.h"
#include "log/agent_log.h"
#include "persist/persist.h"
#include "sub/retain_store.h"
#include "sub/sub_mgr.h"

using namespace zeb;
using namespace zeb_fuzz;

namespace {

constexpr const char *k_dirs[] = {"session", "subscription", "message"};

std::string read_client(fuzz_input *in) {
    static const std::string names[] = {
        "a", "b", "auto_1", std::string(64, 'i'), "..", "x\"y", std::string(127, 'l')};
    const uint32_t choice = in->below(8);
    if (choice < 7) return names[choice];
    std::string name = in->text().substr(0, 200);
    name.erase(std::remove_if(name.begin(), name.end(), [](char c) { return c == '\0' || c == '/'; }),
               name.end());
    return name;
}

void write_file(const std::string &path, const std::vector<uint8_t> &content) {
    const int fd =
        open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0600);
    if (fd < 0) return;  // the input's name is none, or names something else
    FUZZ_CHECK(write(fd, content.data(), content.size()) == static_cast<ssize_t>(content.size()));
    FUZZ_CHECK(close(fd) == 0);
}

// What a file holds: raw bytes, or a text that is put together of the input's choices.
std::vector<uint8_t> read_content(fuzz_input *in, uint32_t kind) {
    static const char *const pieces[] = {"{\"subs\":[",
                                         "{\"topic\":\"",
                                         "t/1",
                                         "\",\"qos\":",
                                         "1",
                                         "},",
                                         "]}",
                                         "{\"msgs\":[",
                                         "{\"msgid\":",
                                         "65535",
                                         ",\"qos\":",
                                         "2",
                                         ",\"topic\":\"",
                                         "\",\"payload\":\"",
                                         "00ff",
                                         "\"},",
                                         "\"session_expiry_interval\":",
                                         "4294967295",
                                         "\"session_expiry_deadline\":",
                                         "18446744073709551616",
                                         "\"clean_start\":",
                                         "true",
                                         "\"will_flag\":true,",
                                         "\"will_topic\":\"",
                                         "\"will_qos\":",
                                         "\"will_len\":",
                                         "\"will_payload\":\"",
                                         "\"will_delay_interval\":",
                                         "\"will_content_type\":\"",
                                         "\"will_response_topic\":\"",
                                         "#",
                                         "a/+/#"};
    if (in->u8() < 0x40) return in->block();
    std::string text = kind == 1 ? pieces[0] : kind == 2 ? pieces[7] : "";
    for (uint32_t n = in->below(96); n > 0; --n) {
        const uint8_t choice = in->u8();
        if (choice < 0xE0)
            text += pieces[choice % 32u];
        else
            text.append((choice & 31u) * 40u, choice & 1 ? 'a' : '0');
    }
    return {text.begin(), text.end()};
}

// One entry of the tree; most are files in their places.
void make_entry(const std::string &root, fuzz_input *in) {
    const uint8_t choice = in->u8();
    const uint32_t kind = choice % 4;
    if (kind == 3) return write_file(root + "/retain.dat", build_retain_file(in));
    const std::string path = root + "/" + k_dirs[kind] + "/" + read_client(in);
    switch (choice >> 2 & 15) {
        case 0:
            return write_file(path, read_content(in, kind));
        case 1:
            return write_file(path + ".json.tmp", read_content(in, kind));
        case 2:
            (void)mkdir((path + ".json").c_str(), 0700);
            return;
        case 3:
            (void)symlink("/dev/zero", (path + ".json").c_str());
            return;
        case 4:
            (void)mkfifo((path + ".json").c_str(), 0600);
            return;
        case 5:
            (void)symlink((root + "/retain.dat").c_str(), (path + ".json.tmp").c_str());
            return;
        default:
            return write_file(path + ".json", read_content(in, kind));
    }
}

template <std::size_t size>
bool is_text(const char (&text)[size]) {
    return std::memchr(text, '\0', size) != nullptr;
}

void check_record(const persist_session &rec) {
    FUZZ_CHECK(is_text(rec.client_id) && is_text(rec.will_topic) && is_text(rec.will_content_type));
    FUZZ_CHECK(is_text(rec.will_response_topic) && rec.will_flag <= 1 && rec.clean_start <= 1);
    FUZZ_CHECK(rec.sub_count >= 0 && rec.sub_count <= PERSIST_MAX_SUBS);
    for (int i = 0; i < rec.sub_count; ++i) FUZZ_CHECK(is_text(rec.subs[i].topic));
    FUZZ_CHECK(rec.msg_count >= 0 && rec.msg_count <= PERSIST_MAX_MSGS);
    for (int i = 0; i < rec.msg_count; ++i) {
        FUZZ_CHECK(is_text(rec.msgs[i].topic));
        FUZZ_CHECK(rec.msgs[i].payload_len <= sizeof rec.msgs[i].payload);
    }
}

using record_ptr = std::unique_ptr<persist_session>;

record_ptr load(const std::string &client, bool *found) {
    auto rec = std::make_unique<persist_session>();
    const std::size_t len = client.copy(rec->client_id, sizeof rec->client_id - 1);
    rec->client_id[len] = '\0';
    FUZZ_CHECK(persist_load_found(rec.get(), found) == (len > 0 ? 0 : -1));
    check_record(*rec);
    return rec;
}

bool same_sub(const persist_sub &a, const persist_sub &b) {
    return std::strcmp(a.topic, b.topic) == 0 && a.qos == b.qos;
}

bool same_msg(const persist_msg &a, const persist_msg &b) {
    return a.msgid == b.msgid && a.qos == b.qos && std::strcmp(a.topic, b.topic) == 0 &&
           a.payload_len == b.payload_len && std::memcmp(a.payload, b.payload, a.payload_len) == 0;
}

// Whether `part` is what is left of `whole` when some entries are taken out.
template <typename Entry, typename Same>
bool is_subsequence(const Entry *part, int part_count, const Entry *whole, int whole_count, Same same) {
    int at = 0;
    for (int i = 0; i < whole_count && at < part_count; ++i) at += same(part[at], whole[i]) ? 1 : 0;
    return at == part_count;
}

// What was loaded and written comes back as it was, but for what no text can hold or no load has room for;
// what came back once comes back for ever.
void check_write_and_load(const std::string &client) {
    constexpr int k_all = PERSIST_SESSION | PERSIST_SUBS | PERSIST_MSGS;
    bool found = false;
    const record_ptr first = load(client, &found);
    if (!found) return;
    persist_mark(first.get(), k_all);
    const record_ptr second = load(client, &found);
    if (!found) return;  // a directory or a link in the place of a file
    FUZZ_CHECK(is_subsequence(second->subs, second->sub_count, first->subs, first->sub_count, same_sub));
    persist_mark(second.get(), k_all);
    const record_ptr third = load(client, &found);
    FUZZ_CHECK(third->msg_count == second->msg_count);
    for (int i = 0; i < third->msg_count; ++i) FUZZ_CHECK(same_msg(third->msgs[i], second->msgs[i]));
    FUZZ_CHECK(third->sub_count == second->sub_count);
    for (int i = 0; i < third->sub_count; ++i) FUZZ_CHECK(same_sub(third->subs[i], second->subs[i]));
}

// A client that comes back gets its queue in as many loads as it takes, which must come to an end.
void replay(const std::string &client) {
    constexpr int k_passes_max = 2 * PERSIST_MAX_MSGS;
    bool found = false;
    record_ptr rec = load(client, &found);
    for (int pass = 0; found && rec->msg_count > 0; ++pass) {
        FUZZ_CHECK(pass < k_passes_max);
        const int left = persist_finish_replay(rec.get());
        FUZZ_CHECK(left >= -5 && left < PERSIST_MAX_MSGS);
        if (left <= 0) break;
        rec = load(client, &found);
    }
}

void use_client(fuzz_input *in) {
    const std::string client = read_client(in);
    const uint8_t choice = in->u8();
    switch (choice % 8) {
        case 0:
            return check_write_and_load(client);
        case 1:
            return replay(client);
        case 2:
        case 3: {
            const std::string topic = in->text();
            const std::vector<uint8_t> payload(choice < 0x80 ? choice : (choice & 0x7Fu) * 20u, choice);
            return persist_add_offline_msg(client.c_str(), topic.c_str(), payload.data(),
                                           static_cast<int>(payload.size()), choice >> 4 & 3);
        }
        case 4:
            FUZZ_CHECK(persist_remove_offline_msg(client.c_str(), in->u16()) <= 0);
            return;
        case 5:
            FUZZ_CHECK(persist_remove(client.c_str()) == 0);
            return;
        case 6: {
            auto rec = std::make_unique<persist_session>();
            client.copy(rec->client_id, sizeof rec->client_id - 1);
            FUZZ_CHECK(persist_load_client_only(rec.get()) <= 0);
            return;
        }
        default: {
            bool found = false;
            (void)load(client, &found);
        }
    }
}

void check_subscriptions() {
    for (int pos = 0; pos < g_sub_mgr.sub_count.load(); ++pos) {
        const mqtt_subscription &sub = g_sub_mgr.subs[pos];
        FUZZ_CHECK(is_text(sub.client_id) && sub.client_id[0] != '\0' && sub.qos <= 2);
        FUZZ_CHECK(reference_is_valid(sub.topic_filter));
    }
}

std::vector<retain_msg> retained() {
    static retain_msg s_copy[RETAIN_MAX];
    const std::vector<retain_msg> out(s_copy, s_copy + retain_store_copy(s_copy, RETAIN_MAX));
    std::set<std::string> topics;
    for (const retain_msg &msg : out) {
        FUZZ_CHECK(is_text(msg.topic) && msg.topic[0] != '\0' && topics.insert(msg.topic).second);
        FUZZ_CHECK(msg.payload_len >= 1 && msg.payload_len <= sizeof msg.payload && msg.qos <= 2);
    }
    return out;
}

bool same_retained(const retain_msg &a, const retain_msg &b) {
    return std::strcmp(a.topic, b.topic) == 0 && a.payload_len == b.payload_len && a.qos == b.qos &&
           std::memcmp(a.payload, b.payload, a.payload_len) == 0 && a.timestamp == b.timestamp &&
           a.expiry_interval == b.expiry_interval;
}

// A broker that starts from what was just saved has what was saved.
void check_retained_file() {
    if (persist_retain_save() != 0) return;
    const std::vector<retain_msg> before = retained();
    (void)retain_store_replace(nullptr, 0);
    FUZZ_CHECK(persist_retain_load() == 0);
    const std::vector<retain_msg> after = retained();
    FUZZ_CHECK(after.size() == before.size());
    for (std::size_t i = 0; i < after.size(); ++i) FUZZ_CHECK(same_retained(after[i], before[i]));
}

void use_retained(fuzz_input *in) {
    const std::vector<retain_msg> messages = retained();
    const uint8_t choice = in->u8();
    const std::vector<uint8_t> payload(choice & 0x7F, choice);
    const std::string topic =
        choice < 0x80 && !messages.empty() ? messages[choice % messages.size()].topic : in->text();
    (void)retain_msg_set_with_expiry(topic.c_str(), payload.data(), static_cast<uint32_t>(payload.size()),
                                     choice % 3u, choice);
    check_retained_file();
}

void empty_tables() {
    std::set<std::string> ids;
    for (int pos = 0; pos < g_sub_mgr.sub_count.load(); ++pos) ids.insert(g_sub_mgr.subs[pos].client_id);
    for (const std::string &id : ids) FUZZ_CHECK(sub_remove(id.c_str(), nullptr) > 0);
    (void)retain_store_replace(nullptr, 0);
}

void check_start(const std::string &root) {
    FUZZ_CHECK(persist_init(root.c_str()) == 0);
    check_subscriptions();
    (void)retained();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    const agent_log_config quiet{AGENT_LOG_FATAL, 0, 0, 0, nullptr};
    agent_log_init(&quiet);
    fuzz_clock::install();
    FUZZ_CHECK(sub_init() == 0);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    constexpr int k_steps_max = 60;
    fuzz_input in(data, size);
    const uint8_t header = in.u8();
    agent_log_set_level((header & 0x80) != 0 ? AGENT_LOG_DEBUG : AGENT_LOG_FATAL);
    fuzz_clock::reset();
    srand(1);
    const std::string root = fuzz_directory() + "/store";
    FUZZ_CHECK(mkdir(root.c_str(), 0700) == 0);
    for (const char *dir : k_dirs) FUZZ_CHECK(mkdir((root + "/" + dir).c_str(), 0700) == 0);
    for (int i = header & 7; i >= 0; --i) make_entry(root, &in);
    check_start(root);
    for (int i = 0; i < k_steps_max && !in.empty(); ++i) {
        const uint8_t op = in.u8();
        if (op < 0xA0)
            use_client(&in);
        else if (op < 0xE0)
            use_retained(&in);
        else if (op < 0xF0)
            make_entry(root, &in);
        else
            fuzz_clock::advance_ms(uint64_t{1} << (op & 15) * 3);
    }
    // Whatever was done to it, it starts again.
    empty_tables();
    check_start(root);
    empty_tables();
    empty_fuzz_directory();
    return 0;
}
