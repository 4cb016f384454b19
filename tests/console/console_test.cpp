#include <cstdint>

#include "console_under_test.h"

TEST(console_callbacks, every_client_is_admitted) {
    const mqtt_connect_para connect{};
    EXPECT_EQ(auth_cb(nullptr, &connect, "user", "secret"), 1);
}

TEST(console_callbacks, publications_and_subscriptions_are_printed_and_allowed) {
    int allowed = 0;
    EXPECT_EQ(printed([&] { allowed += acl_cb(nullptr, "c1", "a/+", 0); }),
              "[APP-ACL] SUBSCRIBE | client=c1 | topic=a/+\n");
    EXPECT_EQ(printed([&] { allowed += acl_cb(nullptr, "c1", "a/b", 1); }),
              "[APP-ACL] PUBLISH | client=c1 | topic=a/b\n");
    EXPECT_EQ(printed([&] { allowed += acl_cb(nullptr, "", "", 255); }),
              "[APP-ACL] PUBLISH | client= | topic=\n");
    EXPECT_EQ(allowed, 3);
}

TEST(console_callbacks, every_event_has_its_name) {
    struct row {
        uint32_t event;
        const char *name;
    };
    constexpr row k_rows[] = {
        {0, "客户端上线"},     {1, "客户端下线"},   {2, "客户端发布"}, {3, "客户端订阅"},
        {4, "客户端取消订阅"}, {5, "遗嘱消息触发"}, {6, "UNKNOWN"},    {UINT32_MAX, "UNKNOWN"},
    };
    for (const row &r : k_rows) {
        EXPECT_EQ(printed([&] { event_cb(nullptr, r.event, "{\"qos\":%s}"); }),
                  std::string("[APP-Event] ") + r.name + " | {\"qos\":%s}\n");
    }
}

TEST(console_menu, a_choice_that_is_not_on_the_menu_is_refused) {
    for (const int choice : {-1, 14, INT_MIN, INT_MAX})
        EXPECT_EQ(printed([&] { run_choice(choice); }), "输入错误！\n") << choice;
    EXPECT_EQ(g_run_flag.load(), 1);
}

TEST(console_menu, choice_0_clears_the_run_flag_and_prints_nothing) {
    EXPECT_EQ(printed([] { run_choice(0); }), "");
    EXPECT_EQ(g_run_flag.load(), 0);
    g_run_flag.store(1);
}
