// What becomes of a publication when memory is short.
#include <cstdlib>
#include <new>

#include "tests/packet/packet_fixture.h"

namespace {

// Which kind of allocation fails while a test says so.
bool g_new_fails = false;
bool g_malloc_fails = false;
bool g_realloc_fails = false;

}  // namespace

extern "C" {
void *__real_malloc(size_t size);
void *__real_realloc(void *p, size_t size);
void *__wrap_malloc(size_t size) {
    return g_malloc_fails ? nullptr : __real_malloc(size);
}
void *__wrap_realloc(void *p, size_t size) {
    return g_realloc_fails ? nullptr : __real_realloc(p, size);
}
}

// Not inlined, or GCC compares the two ends of an allocation and sees malloc meet delete.
[[gnu::noinline]] void *operator new(std::size_t size, const std::nothrow_t &) noexcept {
    return g_new_fails ? nullptr : __real_malloc(size == 0 ? 1 : size);
}
[[gnu::noinline]] void *operator new[](std::size_t size, const std::nothrow_t &) noexcept {
    return g_new_fails ? nullptr : __real_malloc(size == 0 ? 1 : size);
}
[[gnu::noinline]] void *operator new(std::size_t size) {
    return __real_malloc(size == 0 ? 1 : size);
}
[[gnu::noinline]] void *operator new[](std::size_t size) {
    return __real_malloc(size == 0 ? 1 : size);
}
[[gnu::noinline]] void operator delete(void *p) noexcept {
    free(p);
}
[[gnu::noinline]] void operator delete[](void *p) noexcept {
    free(p);
}
[[gnu::noinline]] void operator delete(void *p, std::size_t) noexcept {
    free(p);
}
[[gnu::noinline]] void operator delete[](void *p, std::size_t) noexcept {
    free(p);
}

namespace {

using namespace zeb_test;
using zeb::mqtt_client;

class packet_faults : public packet_fixture {
  protected:
    // More subscribers than any publication before had, so that the memory kept from those does not suffice.
    void grow_table(const char *topic) {
        static int s_largest = 40;
        s_largest *= 3;
        for (int i = 0; i < s_largest; ++i)
            ASSERT_EQ(0, zeb::sub_add(("f" + std::to_string(i)).c_str(), topic, 0, 1));
    }
    void give_without(bool *kind, mqtt_client *client, const bytes &data) {
        *kind = true;
        zeb::packet_dispatch(client, data.data(), static_cast<int32_t>(data.size()));
        *kind = false;
    }
};

TEST_F(packet_faults, without_memory_for_the_routes_a_publication_is_not_acknowledged) {
    mqtt_client *publisher = join("p");
    grow_table("t");
    log_capture log(zeb::AGENT_LOG_ERROR);
    give_without(&g_new_fails, publisher, publish_packet("t", "x", 1, 5));
    EXPECT_TRUE(log.has("ERROR", "matched_subs malloc failed: 12"));
    EXPECT_EQ(texts(), sent(publisher));
    give(publisher, publish_packet("t", "x", 1, 5));
    EXPECT_EQ(just("40 02 00 05"), sent(publisher));
}

TEST_F(packet_faults, without_memory_for_the_choice_a_publication_is_not_acknowledged) {
    mqtt_client *publisher = join("p");
    grow_table("t");
    log_capture log(zeb::AGENT_LOG_ERROR);
    give_without(&g_realloc_fails, publisher, publish_packet("t", "x", 1, 5));
    EXPECT_TRUE(log.has("ERROR", "selected_shared malloc failed: 12"));
    EXPECT_EQ(texts(), sent(publisher));
    give(publisher, publish_packet("t", "x", 1, 5));
    EXPECT_EQ(just("40 02 00 05"), sent(publisher));
}

TEST_F(packet_faults, without_memory_for_the_groups_shared_members_are_skipped_and_others_served) {
    mqtt_client *publisher = join("p");
    mqtt_client *member = join("member");
    mqtt_client *plain = join("plain");
    subscribe(member, "$share/g/t", 0);
    subscribe(plain, "t", 0);
    give(publisher, publish_packet("t", "x"));  // now only the groups need memory
    EXPECT_EQ(1u, sent(member).size());
    (void)sent(plain);
    give_without(&g_malloc_fails, publisher, publish_packet("t", "x", 1, 5));
    EXPECT_EQ(texts(), sent(member));
    EXPECT_EQ(1u, sent(plain).size());
    EXPECT_EQ(just("40 02 00 05"), sent(publisher));
}

TEST_F(packet_faults, a_raw_publication_without_memory_is_reported_or_dropped) {
    mqtt_client *watcher = join("watcher");
    subscribe(watcher, "t", 0);
    grow_table("t");
    const bytes raw_packet = hex("30 05 00 01 't' 'hi'");
    log_capture log(zeb::AGENT_LOG_ERROR);
    g_new_fails = true;
    zeb::packet_handler_broadcast_msg(raw_packet.data(), static_cast<int>(raw_packet.size()), 1);
    g_new_fails = false;
    g_realloc_fails = true;
    zeb::packet_handler_broadcast_msg(raw_packet.data(), static_cast<int>(raw_packet.size()), 1);
    g_realloc_fails = false;
    EXPECT_TRUE(log.has("ERROR", "[遗嘱调试][广播失败] malloc订阅者数组失败：errno=12"));
    EXPECT_EQ(std::string::npos, log.text().find("malloc", log.text().find("errno=12")));
    EXPECT_EQ(texts(), sent(watcher));
}

TEST_F(packet_faults, a_publication_of_the_application_without_memory_is_dropped_silently) {
    mqtt_client *s = join("s");
    subscribe(s, "t", 0);
    grow_table("t");
    const uint8_t byte = 'x';
    log_capture log(zeb::AGENT_LOG_INFO);
    g_new_fails = true;
    zeb::packet_handler_broker_publish("t", &byte, 1, 0, 0, 0);
    g_new_fails = false;
    EXPECT_EQ("", log.text());
    EXPECT_EQ(texts(), sent(s));
}

}  // namespace
