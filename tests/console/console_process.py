"""The console program as a child process that a test talks to, through a pipe or a pseudo-terminal."""

import os
import pty
import signal
import subprocess
import termios
import threading
import time

DEADLINE_S = 60.0

BANNER = ("=====================================================\n"
          "  Tevanor科技 MQTT Broker SDK V2.0 测试程序\n"
          "  版本：V2.0.0\n"
          "=====================================================\n")
PROMPT = "请输入选择："
MENU = ("===========================================\n"
        "  Tevanor MQTT Broker SDK 测试工具 V2.0\n"
        "===========================================\n"
        " 1. 创建并启动 Broker (端口:1883)\n"
        " 2. 停止并销毁 Broker\n"
        " 3. 获取在线客户端数量\n"
        " 4. 获取客户端 ID 列表\n"
        " 5. 查询客户端详细信息\n"
        " 6. 踢掉指定客户端\n"
        " 7. Broker 服务端发布消息\n"
        " 8. 清除保留消息\n"
        " 9. 获取 Broker 统计信息\n"
        " 10. 查看 Broker 运行状态\n"
        " 11. 查看保留消息主题列表\n"
        " 12. 测试错误码字符串\n"
        " 13. 设置日志级别\n"
        " 0. 退出程序\n" + PROMPT)
GOODBYE = "程序正常退出\n"
NO_BROKER = "[错误] Broker 未启动\n"
STARTED = "\n===== Broker 启动成功 监听端口：1883 =====\n"
STOPPED = "[OK] Broker 已停止并销毁\n"

PUBLISH_PROMPTS = ("请输入主题 (默认: test/topic)：", "请输入报文内容 (默认: Hello from ZEB Broker SDK)：",
                   "请输入 QoS (0/1/2)：", "是否保留消息 (0=否,1=是)：", "消息过期时间（秒，0=永不过期）：")
PUBLISHED = "[OK] 服务端发布成功\n\n"


def open_terminal():
    """A pseudo-terminal that passes lines on as a keyboard does but neither echoes nor rewrites line feeds."""
    master, slave = pty.openpty()
    attributes = termios.tcgetattr(slave)
    attributes[1] &= ~termios.OPOST
    attributes[3] &= ~termios.ECHO
    termios.tcsetattr(slave, termios.TCSANOW, attributes)
    return master, slave


class Console:
    def __init__(self, directory, program, terminal):
        self.terminal = terminal
        self.stderr_path = os.path.join(str(directory), "stderr.txt")
        self.data = b""
        self.ended = False
        self.position = 0
        self.answered = 0  # behind the last prompt of the menu that was answered
        self.changed = threading.Condition()
        with open(self.stderr_path, "wb") as stderr:
            if terminal:
                master, slave = open_terminal()
                self.process = subprocess.Popen([program], cwd=str(directory), stdin=slave, stdout=slave,
                                                stderr=stderr, start_new_session=True)
                os.close(slave)
                self.source, self.sink = master, master
            else:
                self.process = subprocess.Popen([program], cwd=str(directory), stdin=subprocess.PIPE,
                                                stdout=subprocess.PIPE, stderr=stderr)
                self.source, self.sink = self.process.stdout.fileno(), self.process.stdin.fileno()
        self.reader = threading.Thread(target=self._read, daemon=True)
        self.reader.start()

    def _read(self):
        data = b"-"
        while data:
            try:
                data = os.read(self.source, 65536)
            except OSError:  # how a terminal without anybody at its other end is reported
                data = b""
            with self.changed:
                self.data += data
                self.ended = not data
                self.changed.notify_all()

    def output(self):
        with self.changed:
            return self.data.decode("utf-8", "backslashreplace")

    def expect(self, text):
        """Wait until the text follows in the output. Returns what stands before it since the last call."""
        start = self.position
        found, end = self._find(text, start)
        self.position = end
        if text.endswith(PROMPT):
            self.answered = end
        return self.data[start:found].decode("utf-8", "backslashreplace")

    def _find(self, text, start):
        wanted = text.encode()
        deadline = time.monotonic() + DEADLINE_S
        with self.changed:
            while True:
                found = self.data.find(wanted, start)
                if found >= 0:
                    return found, found + len(wanted)
                left = deadline - time.monotonic()
                assert left > 0 and not self.ended, "\nexpected: %r\nactual:   %r" % (
                    text, self.data[start:].decode("utf-8", "backslashreplace")[-2000:])
                self.changed.wait(left)

    def type(self, text):
        data = text.encode() if isinstance(text, str) else text
        while data:
            data = data[os.write(self.sink, data):]

    def choose(self, number):
        """Answer the menu. What clients cause may have been printed behind its prompt."""
        _, self.answered = self._find(PROMPT, self.answered)
        self.position = max(self.position, self.answered)
        self.type("%s\n" % number)

    def answer(self, prompt, text):
        self.expect(prompt)
        self.type(text + "\n")

    def start_broker(self):
        self.choose(1)
        self.expect(STARTED)

    def publish(self, *answers):
        self.choose(7)
        for prompt, text in zip(PUBLISH_PROMPTS, answers):
            self.answer(prompt, text)

    def end_input(self):
        if self.terminal:
            self.type(b"\x04")
        else:
            self.process.stdin.close()

    def check_end(self):
        """The program must end by itself, with its last words, status 0 and nothing on stderr."""
        self.expect(GOODBYE)
        self.wait()
        assert self.output().endswith(GOODBYE), self.output()[-500:]

    def wait(self):
        status = self.process.wait(DEADLINE_S)
        self.reader.join(DEADLINE_S)
        with open(self.stderr_path, "rb") as stream:
            errors = stream.read().decode("utf-8", "backslashreplace")
        assert status == 0 and errors == "", "status %d\n%s" % (status, errors)

    def close(self):
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGKILL)
            self.process.wait()
        self.reader.join(DEADLINE_S)
        if self.terminal:
            os.close(self.source)
        else:
            self.process.stdout.close()
            self.process.stdin.close()
