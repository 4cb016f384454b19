#include <sys/stat.h>

#include "tests/persist/persist_fixture.h"

namespace {

namespace fs = std::filesystem;
using zeb::g_sub_mgr;
using zeb_test::file_content;
using zeb_test::new_record;
using zeb_test::push_sub;
using zeb_test::put_file;
using zeb_test::record_ptr;

class restore : public zeb_test::persist_fixture {
  protected:
    static bool subscribed(const std::string &id, const std::string &filter) {
        for (int i = 0; i < g_sub_mgr.sub_count.load(); ++i)
            if (g_sub_mgr.subs[i].client_id == id && g_sub_mgr.subs[i].topic_filter == filter) return true;
        return false;
    }
    static int subscriptions() { return g_sub_mgr.sub_count.load(); }
};

TEST_F(restore, init_makes_the_directories) {
    const fs::path root = outer_ / "new";
    EXPECT_EQ(zeb::persist_init(root.c_str()), 0);
    EXPECT_STREQ(zeb::g_persist_root_path, root.c_str());
    EXPECT_EQ(zeb_test::tree(root),
              (std::map<std::string, std::string>{{(root / "message").string(), "directory"},
                                                  {(root / "session").string(), "directory"},
                                                  {(root / "subscription").string(), "directory"}}));
    EXPECT_TRUE(log_.has("INFO", "[persist] 持久化模块初始化中..."));
    for (const char *dir : {"", "/session", "/subscription", "/message"})
        EXPECT_TRUE(log_.has("DEBUG", "[persist] 目录创建成功: " + root.string() + dir)) << dir;
    EXPECT_TRUE(log_.has("WARN", "[persist] no retain file"));
    EXPECT_TRUE(log_.has("INFO", "[persist] 持久化模块初始化完成，路径：" + root.string()));
}

TEST_F(restore, directories_have_the_mode_that_the_umask_leaves) {
    for (const mode_t mask : {0000u, 0027u}) {
        const fs::path root = outer_ / std::to_string(mask);
        const mode_t old_mask = umask(mask);
        EXPECT_EQ(zeb::persist_init(root.c_str()), 0);
        umask(old_mask);
        for (const char *dir : {"", "session", "subscription", "message"}) {
            struct stat info;
            ASSERT_EQ(stat((root / dir).c_str(), &info), 0);
            EXPECT_EQ(info.st_mode & 07777, 0755u & ~mask) << dir;
        }
    }
}

TEST_F(restore, init_takes_the_root_in_force_as_well) {
    ASSERT_EQ(zeb::persist_init(root_.c_str()), 0);
    EXPECT_EQ(zeb::persist_init(zeb::g_persist_root_path), 0);
    EXPECT_STREQ(zeb::g_persist_root_path, root_.c_str());
}

TEST_F(restore, init_with_directories_makes_none) {
    ASSERT_EQ(zeb::persist_init(root_.c_str()), 0);
    EXPECT_EQ(log_.text().find("目录创建成功"), std::string::npos);
}

TEST_F(restore, init_without_a_root_keeps_the_one_in_force) {
    EXPECT_EQ(zeb::persist_init(nullptr), 0);
    EXPECT_EQ(zeb::persist_init(""), 0);
    EXPECT_EQ(zeb::g_persist_root_path, root_.string());
}

TEST_F(restore, a_root_is_cut_to_511_characters) {
    EXPECT_EQ(zeb::persist_init(std::string(600, 'x').c_str()), 0);
    EXPECT_EQ(zeb::g_persist_root_path, std::string(511, 'x'));
    zeb_test::add_offline("c", "t", "p");
    EXPECT_NE(log_.text().find("] [ERROR] [persist] 写入临时文件失败(重试3次): xxx"), std::string::npos);
}

TEST_F(restore, the_subscriptions_of_every_client_are_live_before_it_returns) {
    put_file(subs_file("a"), R"({"subs":[{"topic":"x/#","qos":1},{"topic":"y","qos":2}]})");
    put_file(subs_file("b.c"), R"({"subs":[{"topic":"z","qos":0}]})");
    put_file(root_ / "subscription" / "x.txt", R"({"subs":[{"topic":"t","qos":0}]})");
    put_file(root_ / "subscription" / ".json", R"({"subs":[{"topic":"n","qos":0}]})");
    restart();
    EXPECT_EQ(subscriptions(), 3);
    EXPECT_TRUE(subscribed("a", "x/#"));
    EXPECT_TRUE(subscribed("a", "y"));
    EXPECT_TRUE(subscribed("b.c", "z"));
    EXPECT_EQ(g_sub_mgr.subs[0].clean_session, 0);
    EXPECT_TRUE(log_.has("INFO", "[persist] ✅ 恢复客户端订阅: a  订阅数=2"));
    EXPECT_TRUE(log_.has("INFO", "[persist] ✅ 恢复客户端订阅: b.c  订阅数=1"));
}

TEST_F(restore, is_framed_in_the_log) {
    zeb::persist_load_all_persisted_subscriptions();
    std::string text;
    for (std::size_t at = 0; (at = log_.text().find("] [INFO] ", at)) != std::string::npos; ++at) {
        const std::size_t start = at + 9;
        const std::string line = log_.text().substr(start, log_.text().find('\n', start) - start);
        if (line.starts_with("[persist]")) text += line + "\n";
    }
    const std::string frame = "[persist] ==============================================\n";
    EXPECT_EQ(text, frame + "[persist] 🔥 BROKER 启动 - 自动加载所有持久化订阅\n" + frame + frame +
                        "[persist] ✅ 所有持久化订阅加载完成\n" + frame);
}

TEST_F(restore, a_missing_directory_is_reported) {
    fs::remove(root_ / "subscription");
    zeb::persist_load_all_persisted_subscriptions();
    EXPECT_TRUE(log_.has("WARN", "[persist] 订阅目录不存在"));
    EXPECT_EQ(log_.text().find("所有持久化订阅加载完成"), std::string::npos);
}

TEST_F(restore, a_name_that_only_contains_the_suffix_loses_its_last_five_characters) {
    put_file(root_ / "subscription" / "x.json.bak", R"({"subs":[{"topic":"t","qos":0}]})");
    zeb::persist_load_all_persisted_subscriptions();
    EXPECT_EQ(subscriptions(), 0);
    EXPECT_TRUE(log_.has("INFO", "[persist] ✅ 恢复客户端订阅: x.jso  订阅数=0"));
}

TEST_F(restore, names_longer_than_an_identifier_are_nobodys) {
    const std::string text = R"({"subs":[{"topic":"t","qos":0}]})";
    put_file(subs_file(std::string(250, 'l')), text);
    put_file(subs_file(std::string(128, 'm')), text);
    put_file(subs_file(std::string(127, 'n')), text);
    put_file(subs_file(std::string(65, 'n')), text);
    put_file(subs_file(std::string(64, 'n')), text);
    fs::create_directory(subs_file("directory"));
    zeb::persist_load_all_persisted_subscriptions();
    EXPECT_EQ(subscriptions(), 1);
    EXPECT_TRUE(subscribed(std::string(64, 'n'), "t"));
}

TEST_F(restore, an_interrupted_replacement_is_finished) {
    const std::string text = R"({"subs":[{"topic":"new","qos":1}]})";
    put_file(subs_file("c").string() + ".tmp", text);
    put_file(session_file("c").string() + ".tmp", R"({"session_expiry_interval":9,)");
    put_file(msgs_file("c").string() + ".tmp", R"({"msgs":[]})");
    restart();
    EXPECT_EQ(file_content(subs_file("c")), text);
    EXPECT_EQ(file_content(msgs_file("c")), R"({"msgs":[]})");
    EXPECT_EQ(zeb_test::loaded("c")->session_expiry_interval, 9u);
    EXPECT_EQ(zeb_test::tree(root_).size(), 6u);
    EXPECT_TRUE(subscribed("c", "new"));
    EXPECT_TRUE(log_.has("INFO", "[persist] interrupted write finished: c.json"));
}

TEST_F(restore, a_temporary_file_beside_its_file_is_removed) {
    put_file(subs_file("c"), R"({"subs":[{"topic":"old","qos":1}]})");
    put_file(subs_file("c").string() + ".tmp", R"({"subs":[{"topic":"new","qos":1}]})");
    restart();
    EXPECT_TRUE(subscribed("c", "old"));
    EXPECT_EQ(subscriptions(), 1);
    EXPECT_FALSE(fs::exists(subs_file("c").string() + ".tmp"));
}

TEST_F(restore, an_incomplete_temporary_file_is_removed) {
    put_file(subs_file("empty").string() + ".tmp", "");
    put_file(subs_file("c").string() + ".tmp", std::string("\0\"subs\":[", 9));
    fs::create_symlink("nowhere", subs_file("link").string() + ".tmp");
    restart();
    EXPECT_EQ(zeb_test::tree(root_).size(), 3u);
}

TEST_F(restore, a_temporary_file_that_cannot_be_settled_is_reported_and_is_no_client) {
    fs::create_directory(subs_file("c").string() + ".tmp");
    restart();
    EXPECT_EQ(subscriptions(), 0);
    EXPECT_NE(log_.text().find("] [WARN] [persist] cannot settle an interrupted write: c.json.tmp, errno="),
              std::string::npos);
    EXPECT_EQ(log_.text().find("恢复客户端订阅"), std::string::npos);
}

TEST_F(restore, works_again_after_a_destroy) {
    record_ptr rec = new_record("c");
    push_sub(rec.get(), "t", 1);
    zeb::persist_mark(rec.get(), zeb::PERSIST_SUBS);
    zeb_test::add_offline("c", "t", "p");
    ASSERT_EQ(zeb_test::retain("r", "v"), 0);
    for (int i = 0; i < 3; ++i) {
        restart();
        EXPECT_TRUE(subscribed("c", "t"));
        EXPECT_EQ(zeb_test::retained(), (std::map<std::string, std::string>{{"r", "v"}}));
        zeb_test::add_offline("c", "t", "p");
    }
    EXPECT_EQ(zeb_test::loaded("c")->msg_count, 4);
}

TEST_F(restore, the_operations_of_other_designs_only_log) {
    zeb::persist_stop();
    zeb::persist_flush();
    zeb::persist_clean_expire();
    zeb::persist_destroy();
    EXPECT_TRUE(log_.has("INFO", "[persist] 停止刷盘线程..."));
    EXPECT_TRUE(log_.has("DEBUG", "[persist] 执行强制刷盘(无操作，已同步写入)"));
    EXPECT_TRUE(log_.has("DEBUG", "[persist] 清理过期会话（未启用）"));
    EXPECT_TRUE(log_.has("INFO", "[persist] 持久化模块销毁中..."));
}

}  // namespace
