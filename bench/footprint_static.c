// The least that can serve: a static program of plain C that serves frames at the path it is given,
// one connection at a time. For comparison only.

#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

static int read_all(int from, void* bytes, size_t length) {
  for (size_t got = 0; got < length;) {
    const ssize_t n = read(from, (char*)bytes + got, length - got);
    if (n <= 0) return 0;
    got += (size_t)n;
  }
  return 1;
}

int main(int argc, char** argv) {
  static char body[0x100000];
  struct sockaddr_un address = {.sun_family = AF_UNIX};
  if (argc != 2 || strlen(argv[1]) >= sizeof address.sun_path) return 2;
  strcpy(address.sun_path, argv[1]);
  const int listening = socket(AF_UNIX, SOCK_STREAM, 0);
  unlink(argv[1]);
  if (bind(listening, (const struct sockaddr*)&address, sizeof address) != 0) return 1;
  if (listen(listening, 20) != 0 || chmod(argv[1], 0666) != 0) return 1;
  for (;;) {
    const int client = accept(listening, NULL, NULL);
    uint32_t length;
    if (read_all(client, &length, sizeof length) && length <= sizeof body &&
        read_all(client, body, length) && write(client, "\0\0\0\0", 4) != 4)
      return 1;
    close(client);
  }
}
