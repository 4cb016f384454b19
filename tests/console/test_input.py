"""Answers that do not fit, answers that are no numbers, and no answers at all."""

import pytest

from console_process import MENU, PUBLISH_PROMPTS, PUBLISHED
from mqtt_wire import publish

RUNNING = "[结果] Broker 运行状态: 运行中\n"

WORDS = [
    (5, "请输入要查询的 client_id：", "[错误] 未找到客户端\n"),
    (6, "请输入要踢掉的 client_id：", "[错误] 踢人失败\n"),
    (8, "请输入要清除的保留消息主题：", "[错误] 清除失败\n"),
]


def still_in_step(console):
    """The next choice is the next answer: nothing was left in the input."""
    console.choose(10)
    console.expect(RUNNING)


@pytest.mark.parametrize("choice, prompt, failure", WORDS)
@pytest.mark.parametrize("length", [127, 128, 255, 256, 257, 4000])
def test_a_word_longer_than_its_buffer_answers_one_question(running, choice, prompt, failure, length):
    running.choose(choice)
    running.answer(prompt, "0" * length)  # a rest would end the program
    running.expect(failure)
    still_in_step(running)


@pytest.mark.parametrize("choice, prompt, failure", WORDS)
def test_a_word_ends_at_a_space(running, choice, prompt, failure):
    running.choose(choice)
    running.answer(prompt, " \n\t word 10")
    running.expect(failure)
    running.expect(RUNNING)


def test_a_topic_is_cut_at_255_bytes_wherever_it_is_asked_for(running, client):
    conn = client("c-1")
    conn.subscribe(("#", 0))
    running.publish("t" * 256 + "0" * 1000, "x", "0", "1", "0")
    running.expect(PUBLISHED)
    conn.expect(publish("t" * 255, b"x"))
    running.choose(11)
    running.expect("[结果] 保留消息主题：%s\n\n" % ("t" * 255))
    running.choose(8)
    running.answer("请输入要清除的保留消息主题：", "t" * 256 + "0" * 1000)
    running.expect("[OK] 清除成功\n")
    still_in_step(running)


@pytest.mark.parametrize("length", [511, 512, 513, 4000])
def test_a_payload_is_cut_at_511_bytes(running, client, length):
    conn = client("c-1")
    conn.subscribe(("#", 0))
    running.publish("t", "0" * length, "0", "0", "0")
    running.expect(PUBLISHED)
    conn.expect(publish("t", b"0" * 511))
    still_in_step(running)


def test_percent_signs_are_printed_as_they_are(running):
    running.publish("%s%n/%d", "x", "0", "1", "0")
    running.expect(PUBLISHED)
    running.choose(11)
    running.expect("[结果] 保留消息主题：%s%n/%d\n\n")


@pytest.mark.parametrize("open_console", ["pipe"], indirect=True)  # a terminal takes no line of that length
def test_a_megabyte_is_one_answer(open_console):
    console = open_console()
    console.start_broker()
    console.choose(6)
    console.answer(WORDS[1][1], "0" * 1048576)
    console.expect(WORDS[1][2])
    still_in_step(console)
    console.choose("9" * 1048576)
    console.expect("输入错误！\n")
    console.choose(0)
    console.check_end()


def test_letters_for_every_number_of_a_publication_count_as_0_and_end_the_program(running, client):
    conn = client("c-1")
    conn.subscribe(("#", 0))
    running.publish("a", "x", "high")
    for prompt in PUBLISH_PROMPTS[3:]:
        running.expect(prompt)
    running.expect(PUBLISHED)
    conn.expect(publish("a", b"x"))
    running.expect(MENU)
    running.check_end()


def test_letters_for_a_log_level_are_refused_and_end_the_program(running):
    running.choose(13)
    running.answer("请输入日志级别(0-4)：", "debug")
    running.expect("[错误] 无效级别\n")
    running.expect(MENU)
    running.check_end()


@pytest.mark.parametrize("choice, prompt, failure",
                         WORDS + [(13, "请输入日志级别(0-4)：", "[错误] 无效级别\n")])
def test_the_end_of_the_input_at_a_question_ends_the_program(running, choice, prompt, failure):
    running.choose(choice)
    running.expect(prompt)
    running.end_input()
    running.expect(failure)
    running.expect(MENU)
    running.check_end()


@pytest.mark.parametrize("choice, prompt, failure", WORDS)
def test_a_word_may_end_with_the_input(running, choice, prompt, failure):
    running.choose(choice)
    running.expect(prompt)
    running.type("nobody")
    running.end_input()
    if running.terminal:
        running.end_input()  # the first one only hands over what has been typed
    running.expect(failure)
    running.expect(MENU)
    running.check_end()


@pytest.mark.parametrize("answers, topic, payload", [
    ([], "test/topic", b"Hello from ZEB Broker SDK"),
    (["a"], "a", b"Hello from ZEB Broker SDK"),
    (["a", "x"], "a", b"x"),
    (["a", "x", "0"], "a", b"x"),
    (["a", "x", "0", "0"], "a", b"x"),
])
def test_the_end_of_the_input_while_publishing_leaves_the_defaults_and_ends_the_program(running, client, answers,
                                                                                       topic, payload):
    conn = client("c-1")
    conn.subscribe(("#", 0))
    running.publish(*answers)
    running.expect(PUBLISH_PROMPTS[len(answers)])
    running.end_input()
    for prompt in PUBLISH_PROMPTS[len(answers) + 1:]:
        running.expect(prompt)
    running.expect(PUBLISHED)
    conn.expect(publish(topic, payload))
    running.expect(MENU)
    running.check_end()


def test_the_end_of_the_input_at_the_menu_stops_the_broker(running):
    running.expect(MENU)
    running.end_input()
    running.check_end()
