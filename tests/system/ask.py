"""Run inside the Mac root: sends raw bytes to an endpoint and prints all that comes back.

    ask.py PATH [--half] < BYTES

With --half the sending side is closed after the bytes, as a client does that breaks off."""

import socket
import sys

LIMIT_S = 30


def ask(path, data, half):
    with socket.socket(socket.AF_UNIX) as connection:
        connection.settimeout(LIMIT_S)
        connection.connect(path)
        answer = b""
        try:
            connection.sendall(data)
            if half:
                connection.shutdown(socket.SHUT_WR)
            while chunk := connection.recv(65536):
                answer += chunk
        except (BrokenPipeError, ConnectionResetError):
            pass  # the helper has dropped the connection
        return answer


if __name__ == "__main__":
    sys.stdout.buffer.write(ask(sys.argv[1], sys.stdin.buffer.read(), "--half" in sys.argv))
