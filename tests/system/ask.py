"""Run inside the Mac root: sends raw bytes to an endpoint and prints all that comes back.

    ask.py PATH [--half | --leave] < BYTES

With --half the sending side is closed after the bytes, as a client does that breaks off; with
--leave the whole connection is, without a look at the answer."""

import socket
import sys

LIMIT_S = 30


def ask(path, data, option):
    with socket.socket(socket.AF_UNIX) as connection:
        connection.settimeout(LIMIT_S)
        connection.connect(path)
        answer = b""
        try:
            connection.sendall(data)
            if option == "--half":
                connection.shutdown(socket.SHUT_WR)
            while option != "--leave" and (chunk := connection.recv(65536)):
                answer += chunk
        except (BrokenPipeError, ConnectionResetError):
            pass  # the helper has dropped the connection
        return answer


if __name__ == "__main__":
    PATH, *OPTIONS = sys.argv[1:]
    sys.stdout.buffer.write(ask(PATH, sys.stdin.buffer.read(), "".join(OPTIONS)))
