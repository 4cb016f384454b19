#include <sys/stat.h>

#include "tests/persist/persist_fixture.h"

// Client identifiers name files as they are.

namespace {

namespace fs = std::filesystem;
using zeb_test::file_content;
using zeb_test::new_record;
using zeb_test::push_msg;
using zeb_test::push_sub;
using zeb_test::put_file;
using zeb_test::record_ptr;

constexpr int k_all = zeb::PERSIST_SESSION | zeb::PERSIST_SUBS | zeb::PERSIST_MSGS;

class names : public zeb_test::persist_fixture {
  protected:
    // Files of the right names wherever an identifier could lead to.
    void lay_baits() const {
        const std::string text =
            R"({"subs":[{"topic":"bait","qos":1}],"msgs":[{}],"session_expiry_interval":1})";
        for (const char *dir : {"", "data", "data/session/sub", "data/subscription/sub", "data/message/sub",
                                "outside", "data/other"}) {
            fs::create_directories(outer_ / dir);
            for (const char *name : {"bait.json", "bait.json.tmp", ".json"})
                put_file(outer_ / dir / name, text);
        }
        put_file(outer_ / "data/session/own.json", text);
    }
    static void do_everything(const std::string &id) {
        record_ptr rec = new_record(id);
        push_sub(rec.get(), "t", 1);
        push_msg(rec.get(), 1, "t", "p", 1);
        zeb::persist_mark(rec.get(), k_all);
        zeb_test::add_offline(id, "t", "p");
        (void)zeb::persist_remove_offline_msg(id.c_str(), 1);
        bool found = false;
        (void)zeb::persist_load_found(new_record(id).get(), &found);
        EXPECT_FALSE(found) << id;
        EXPECT_NE(zeb::persist_load_client_only(new_record(id).get()), 0);
        (void)zeb::persist_remove(id.c_str());
    }
};

TEST_F(names, with_a_slash_never_leave_their_directory) {
    lay_baits();
    const auto before = zeb_test::tree(outer_);
    for (const char *id : {"sub/bait", "../bait", "../../bait", "../../outside/bait", "../other/bait",
                           "./own", "/bait", "sub/", "/", "../", "sub/../own", "a/b", "sub//bait"})
        do_everything(id);
    do_everything((outer_ / "outside" / "bait").string());
    EXPECT_EQ(zeb_test::tree(outer_), before);
    EXPECT_EQ(writes(), 0u);
}

TEST_F(names, with_a_slash_point_into_a_sub_directory_where_the_write_fails_and_is_reported) {
    zeb::persist_mark(new_record("a/b").get(), zeb::PERSIST_SESSION);
    EXPECT_TRUE(log_.has("ERROR",
                         "[persist] 写入临时文件失败(重试3次): " + root_.string() + "/session/a/b.json.tmp"));
    EXPECT_EQ(clock_.slept_us(), 0u);  // it would never succeed
}

TEST_F(names, empty_ones_have_no_files) {
    lay_baits();
    for (const char *dir : {"session", "subscription", "message"}) put_file(root_ / dir / ".json", "{}");
    const auto before = zeb_test::tree(outer_);
    do_everything("");
    EXPECT_EQ(zeb_test::tree(outer_), before);
    EXPECT_EQ(zeb::persist_remove(nullptr), -1);
}

TEST_F(names, of_any_other_bytes_are_files_of_their_own) {
    for (const std::string &id :
         {std::string("."), std::string(".."), std::string("..."), std::string("a b"), std::string(".hidden"),
          std::string("quote\"s'"), std::string("100%s%n%d"), std::string("\x01\x1f\x7f\n"),
          std::string("\xff\xfe\xc3"), std::string("-rf *"), std::string("客户端"), std::string("x.json"),
          std::string("x.json.tmp"), std::string(127, 'i'), std::string("\\..\\")}) {
        record_ptr rec = new_record(id);
        rec->session_expiry_interval = 77;
        push_sub(rec.get(), "t", 1);
        push_msg(rec.get(), 1, "t", "p", 1);
        zeb::persist_mark(rec.get(), k_all);
        EXPECT_EQ(zeb_test::tree(root_).size(), 6u) << id;
        EXPECT_TRUE(fs::exists(session_file(id)) && fs::exists(subs_file(id)) && fs::exists(msgs_file(id)))
            << id;
        zeb_test::add_offline(id, "t", "q");
        const record_ptr back = zeb_test::loaded(id);
        EXPECT_EQ(back->session_expiry_interval, 77u);
        EXPECT_EQ(back->sub_count, 1);
        EXPECT_EQ(back->msg_count, 2);
        EXPECT_EQ(zeb::persist_remove(id.c_str()), 0);
        EXPECT_EQ(zeb_test::tree(root_).size(), 3u) << id;
    }
}

TEST_F(names, an_identifier_is_cut_to_127_characters_for_the_queue) {
    zeb_test::add_offline(std::string(200, 'i'), "t", "p");
    EXPECT_TRUE(fs::exists(msgs_file(std::string(127, 'i'))));
}

TEST_F(names, links_are_not_followed) {
    lay_baits();
    const auto before = zeb_test::tree(outer_ / "outside");
    for (const char *dir : {"session", "subscription", "message"}) {
        fs::create_symlink(outer_ / "outside" / "bait.json", root_ / dir / "link.json");
        fs::create_symlink(outer_ / "outside" / "bait.json.tmp", root_ / dir / "link.json.tmp");
        fs::create_hard_link(outer_ / "outside" / "bait.json.tmp", root_ / dir / "hard.json.tmp");
    }
    bool found = true;
    EXPECT_EQ(zeb::persist_load_found(new_record("link").get(), &found), 0);
    EXPECT_FALSE(found);
    EXPECT_EQ(zeb::persist_load_client_only(new_record("link").get()), -4);
    for (const char *id : {"link", "hard"}) {
        record_ptr rec = new_record(id);
        push_sub(rec.get(), "t", 1);
        zeb::persist_mark(rec.get(), k_all);
        EXPECT_EQ(file_content(subs_file(id)), R"({"subs":[{"topic":"t","qos":1}]})");
        EXPECT_FALSE(fs::is_symlink(subs_file(id)));
    }
    fs::remove(subs_file("link"));
    fs::create_symlink(outer_ / "outside" / "bait.json", subs_file("link"));
    EXPECT_EQ(zeb::persist_remove("link"), 0);
    EXPECT_FALSE(fs::is_symlink(subs_file("link")));
    EXPECT_EQ(zeb_test::tree(outer_ / "outside"), before);
}

TEST_F(names, a_linked_retain_file_is_neither_read_nor_written) {
    put_file(outer_ / "bait", "bait");
    fs::create_symlink(outer_ / "bait", retain_file());
    EXPECT_EQ(zeb::persist_retain_load(), -4);
    EXPECT_EQ(zeb::persist_retain_save(), -2);
    EXPECT_EQ(file_content(outer_ / "bait"), "bait");
}

TEST_F(names, a_pipe_or_a_directory_in_the_place_of_a_file_blocks_nobody) {
    for (const char *dir : {"session", "subscription", "message"}) {
        ASSERT_EQ(mkfifo((root_ / dir / "pipe.json").c_str(), 0644), 0);
        ASSERT_EQ(mkfifo((root_ / dir / "pipe.json.tmp").c_str(), 0644), 0);
    }
    ASSERT_EQ(mkfifo(retain_file().c_str(), 0644), 0);
    fs::create_directory(msgs_file("dir"));
    put_file(msgs_file("dir") / "full", "");
    EXPECT_EQ(zeb::persist_retain_load(), -4);
    EXPECT_EQ(zeb::persist_retain_save(), -2);
    zeb_test::add_offline("pipe", "t", "p");
    EXPECT_EQ(zeb_test::loaded("pipe")->msg_count, 1);
    zeb_test::add_offline("dir", "t", "p");
    EXPECT_TRUE(log_.has("ERROR", "[persist] 重命名失败: " + msgs_file("dir").string()));
    EXPECT_FALSE(fs::exists(msgs_file("dir").string() + ".tmp"));
}

}  // namespace
