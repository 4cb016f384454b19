"""The menu, and everything that needs no broker: these sessions are compared as a whole."""

import os
import subprocess

import pytest

from console_process import BANNER, GOODBYE, MENU, NO_BROKER, STOPPED

REPOSITORY = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))

ERROR_TEXTS = ("\n===== 错误码说明测试 =====\n"
               "错误码 0 -> OK\n"
               "错误码 -2 -> Invalid parameter\n"
               "错误码 -5 -> Not found\n"
               "错误码 -6 -> Denied\n")


def whole_session(console, *results):
    """What a session prints whose choices have these results; the last choice ends it."""
    console.wait()
    assert console.output() == BANNER + "".join(MENU + result for result in results) + MENU + GOODBYE


def test_choice_0_ends_the_program(console):
    console.choose(0)
    whole_session(console)


def test_a_letter_at_the_menu_ends_the_program(console):
    console.choose("q")
    whole_session(console)


def test_a_letter_at_the_menu_ends_the_program_as_it_is_delivered(open_console):
    console = open_console("ZEB_CONSOLE")
    console.choose("q")
    whole_session(console)


def test_the_end_of_the_input_at_the_menu_ends_the_program(console):
    console.choose(12)
    console.expect(MENU)
    console.end_input()
    whole_session(console, ERROR_TEXTS)


def test_stopping_without_a_broker_is_refused(console):
    console.choose(2)
    console.choose(0)
    whole_session(console, NO_BROKER)


@pytest.mark.parametrize("choice", [2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 13])
def test_every_action_on_a_broker_asks_for_nothing_without_one(console, choice):
    console.choose(choice)
    console.choose(0)
    whole_session(console, NO_BROKER)


def test_error_texts_need_no_broker(console):
    console.choose(12)
    console.choose(0)
    whole_session(console, ERROR_TEXTS)


@pytest.mark.parametrize("choice", ["14", "-1", "99", "2147483648", "4294967297", "9" * 400])
def test_a_number_that_is_not_on_the_menu_is_refused(console, choice):
    console.choose(choice)
    console.choose(0)
    whole_session(console, "输入错误！\n")


def test_empty_lines_at_the_menu_are_passed_over(console):
    console.choose("\n\n  12")
    console.choose("0")
    whole_session(console, ERROR_TEXTS)


def test_letters_behind_a_choice_are_the_next_choice(console):
    console.choose("12abc")
    whole_session(console, ERROR_TEXTS)


def test_answers_typed_ahead_are_taken_in_order(console):
    console.type("12\n2\n14\n0\n12\n")
    whole_session(console, ERROR_TEXTS, NO_BROKER, "输入错误！\n")


def test_leaving_stops_a_broker_that_runs(console):
    console.start_broker()
    console.choose(0)
    console.check_end()
    assert console.output().endswith(STOPPED + GOODBYE)


def test_run_sh_tells_of_the_console():
    script = subprocess.run([os.path.join(REPOSITORY, "run.sh"), "--help"], stdout=subprocess.PIPE, text=True,
                            check=True)
    assert "       ./run.sh console\n" in script.stdout
