"""Every action on a broker that runs, with real clients where the action is about clients."""

import re
import socket

import pytest

from console_process import MENU, NO_BROKER, PUBLISHED, STARTED, STOPPED
from mqtt_wire import DISCONNECT, publish, string, subscribe, unhex, unsubscribe

SEPARATOR = "=" * 53 + "\n"
STEPS = "[OK] 创建 Broker 实例成功\n[OK] 注册回调成功\n[OK] 参数配置完成\n[OK] Broker 初始化成功\n"
ASIDE = re.compile(r"\[(\d{4}-\d\d-\d\d|APP-)[^\n]*\n")  # the log and the callbacks
STATS_BLOCK = re.compile("\n%s📊 周期统计 \\| 在线:\\d+ \\| 消息:\\d+ \\| 订阅:\\d+ \\| 运行:\\d+秒\n%s" % (
    SEPARATOR, SEPARATOR))


def result_of(console, choice):
    """What an action without questions prints, free of what other threads may print meanwhile."""
    console.choose(choice)
    printed = console.expect("\n" + MENU.split("\n", 1)[0] + "\n") + "\n"
    return STATS_BLOCK.sub("", ASIDE.sub("", printed))


def event(name, client_id, topic="", qos=0):
    return '[APP-Event] %s | {"clientId":"%s","topic":"%s","qos":%d}\n' % (name, client_id, topic, qos)


def test_starting_reports_every_step_in_order(console):
    assert result_of(console, 1) == STEPS + STARTED
    console.choose(0)
    console.check_end()


def test_a_second_start_is_refused(running):
    assert result_of(running, 1) == "[错误] Broker 已启动\n"
    assert result_of(running, 10) == "[结果] Broker 运行状态: 运行中\n"


def test_a_broker_can_be_stopped_and_started_again(running):
    for _ in range(2):
        running.choose(2)
        running.expect(STOPPED)
        assert result_of(running, 2) == NO_BROKER
        assert result_of(running, 10) == NO_BROKER
        running.start_broker()
        assert result_of(running, 3) == "[结果] 当前在线客户端：0\n"


def test_a_taken_port_is_reported_and_leaves_no_broker_behind(console):
    with socket.socket() as taken:
        taken.bind(("0.0.0.0", 1883))
        taken.listen()
        steps = result_of(console, 1)
    assert steps == STEPS + "[错误] Broker 启动失败（端口被占用？）\n"
    assert result_of(console, 2) == NO_BROKER
    console.start_broker()
    console.choose(0)
    console.check_end()


def test_clients_are_counted_and_listed(running, client):
    assert result_of(running, 3) == "[结果] 当前在线客户端：0\n"
    assert result_of(running, 4) == "[结果] 在线客户端列表：\n"
    client("c-1")
    assert result_of(running, 4) == "[结果] 在线客户端列表：c-1\n"
    client("c-2", level=5)
    assert result_of(running, 3) == "[结果] 当前在线客户端：2\n"
    listed = result_of(running, 4)
    assert listed.startswith("[结果] 在线客户端列表：") and listed.endswith("\n")
    assert sorted(listed[len("[结果] 在线客户端列表："):-1].split(",")) == ["c-1", "c-2"]


def test_a_client_is_described(running, client):
    conn = client("c-1", keepalive=77)
    running.choose(5)
    running.answer("请输入要查询的 client_id：", "c-1")
    running.expect("\n===== 客户端信息 =====\n"
                   "client_id:    c-1\n"
                   "ip:           127.0.0.1\n"
                   "port:         %d\n"
                   "keepalive:    77 秒\n"
                   "在线状态:     在线\n"
                   "连接时长:     " % conn.sock.getsockname()[1])
    assert re.fullmatch(r"\d+", running.expect(" 秒\n"))
    running.choose(5)
    running.answer("请输入要查询的 client_id：", "c-2")
    running.expect("[错误] 未找到客户端\n")


def test_a_client_is_kicked(running, client):
    conn, stays = client("c-1", level=5), client("c-2")
    running.choose(6)
    running.answer("请输入要踢掉的 client_id：", "c-1")
    running.expect("[OK] 踢人成功\n")
    conn.expect_closed(unhex("E0 02 98 00"))
    running.choose(6)
    running.answer("请输入要踢掉的 client_id：", "nobody")
    running.expect("[错误] 踢人失败\n")
    stays.ping()


def test_a_publication_reaches_subscribers_and_is_retained(running, client):
    conn = client("c-1")
    conn.subscribe(("a/#", 0))
    running.publish("a/b c", "hello, 世界", "0", "0", "0")
    running.expect(PUBLISHED)
    conn.expect(publish("a/b c", "hello, 世界".encode()))
    assert result_of(running, 11) == "[结果] 保留消息主题：\n"
    running.publish("a/kept", "for later", "0", "1", "3600")
    running.expect(PUBLISHED)
    conn.expect(publish("a/kept", b"for later"))
    assert result_of(running, 11) == "[结果] 保留消息主题：a/kept\n\n"
    running.choose(8)
    running.answer("请输入要清除的保留消息主题：", "a/kept")
    running.expect("[OK] 清除成功\n")
    running.choose(8)
    running.answer("请输入要清除的保留消息主题：", "a/kept")
    running.expect("[错误] 清除失败\n")
    assert result_of(running, 11) == "[结果] 保留消息主题：\n"


def test_a_publication_has_the_quality_of_service_that_was_asked_for(running, client):
    conn = client("c-1")
    conn.subscribe(("q", 2))
    for qos in (1, 2):
        running.publish("q", "x", str(qos), "0", "0")
        running.expect(PUBLISHED)
        assert conn.packet()[0] & 0x06 == qos << 1


def test_any_number_but_0_retains(running):
    running.publish("kept", "x", "0", "256", "0")
    running.expect(PUBLISHED)
    assert result_of(running, 11) == "[结果] 保留消息主题：kept\n\n"


def test_pressing_enter_at_both_publish_prompts_publishes_nothing(running, client):
    conn = client("c-1")
    conn.subscribe(("#", 0))
    running.publish("", "", "0", "0", "0")
    running.expect("[错误] 发布失败，错误码：-2 -> Invalid parameter\n\n")
    conn.ping()


@pytest.mark.parametrize("qos", ["3", "-1", "99999999999"])
def test_a_quality_of_service_out_of_range_is_refused(running, qos):
    running.publish("a", "x", qos, "1", "0")
    running.expect("[错误] 发布失败，错误码：-2 -> Invalid parameter\n\n")
    assert result_of(running, 11) == "[结果] 保留消息主题：\n"


def test_statistics_count_clients_and_their_publications(running, client):
    conn = client("c-1")
    for _ in range(3):
        conn.send(publish("a", b"x"))
    conn.ping()
    running.choose(9)
    running.expect("\n===== Broker 统计 =====\n在线客户端: 1\n总消息数: 3\n总订阅数: ")
    assert re.fullmatch(r"\d+\n运行时间: \d+", running.expect(" 秒\n"))


def test_the_statistics_thread_prints_while_the_menu_waits(running, client):
    client("c-1")
    running.expect(MENU)
    for _ in range(2):
        running.expect("\n" + SEPARATOR + "📊 周期统计 | 在线:1 | 消息:0 | 订阅:")
        assert re.fullmatch(r"\d+ \| 运行:\d+", running.expect("秒\n" + SEPARATOR))
    running.type("10\n")
    running.expect("[结果] Broker 运行状态: 运行中\n")


@pytest.mark.parametrize("open_console", ["pipe"], indirect=True)
def test_statistics_end_with_the_broker_as_they_are_delivered(open_console):
    """The one session with the true sleeps: a line after 15 s, then a stop that waits for the next one."""
    console = open_console("ZEB_CONSOLE")
    console.start_broker()
    console.expect(MENU)
    console.expect("\n" + SEPARATOR + "📊 周期统计 | 在线:0 | 消息:0 | 订阅:0 | 运行:")
    console.expect("秒\n" + SEPARATOR)
    console.type("2\n")
    console.expect(STOPPED)
    console.choose(0)
    console.check_end()
    assert "📊" not in console.output().split(STOPPED)[1]


def test_callbacks_print_what_clients_do(running, client):
    conn = client("c-1")
    running.expect(event("客户端上线", "c-1"))
    conn.send(subscribe(1, ("a/+", 1)))
    running.expect("[APP-ACL] SUBSCRIBE | client=c-1 | topic=a/+\n")
    running.expect(event("客户端订阅", "c-1", "a/+", 1))
    conn.send(publish("b", b"x"))
    running.expect("[APP-ACL] PUBLISH | client=c-1 | topic=b\n")
    running.expect(event("客户端发布", "c-1", "b"))
    conn.send(unsubscribe(2, "a/+"))
    running.expect(event("客户端取消订阅", "c-1", "a/+"))
    conn.send(DISCONNECT)
    running.expect(event("客户端下线", "c-1"))


def test_a_will_is_printed_when_its_client_is_lost(running, client):
    conn = client("c-1", flags=0x04, rest=string("last/words") + string("bye"))
    conn.close()
    running.expect('[APP-Event] 遗嘱消息触发 | {"clientId":"c-1","topic":"last/words"')


def choose_level(console, level):
    console.choose(13)
    console.expect("\n日志级别说明：\n 0 = DEBUG (最详细)\n 1 = INFO\n 2 = WARN\n 3 = ERROR\n 4 = FATAL\n")
    console.answer("请输入日志级别(0-4)：", level)


@pytest.mark.parametrize("level", [0, 1, 2, 3, 4])
def test_every_log_level_can_be_set(running, level):
    choose_level(running, str(level))
    running.expect("[OK] 日志级别已设置为 %d\n" % level)


@pytest.mark.parametrize("level", ["5", "-1", "4294967296"])
def test_a_log_level_out_of_range_is_refused(running, level):
    choose_level(running, level)
    running.expect("[错误] 无效级别\n")


def test_a_log_level_counts_from_the_next_line_on(running, client):
    conn = client("c-1")
    choose_level(running, "0")
    running.expect("[OK] 日志级别已设置为 0\n")
    conn.ping()
    running.expect("] [DEBUG] ")
    choose_level(running, "2")
    running.expect("[OK] 日志级别已设置为 2\n")
