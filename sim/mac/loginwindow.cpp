// The process that stands for a log-in session: its process id is that of the login record, and
// what it starts is part of the session. It only waits for its end.

#include <unistd.h>

int main() {
  for (;;) ::pause();
}
