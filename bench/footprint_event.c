// A server on libevent, as its makers mean it, that serves frames at the path it is given, a socket
// that everyone may use. For comparison only.

#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <event2/event.h>
#include <event2/listener.h>
#include <stdint.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

static void written(struct bufferevent* client, void* unused) {
  (void)unused;
  bufferevent_free(client);
}

static void ended(struct bufferevent* client, short what, void* unused) {
  (void)what;
  (void)unused;
  bufferevent_free(client);
}

static void readable(struct bufferevent* client, void* unused) {
  (void)unused;
  struct evbuffer* const input = bufferevent_get_input(client);
  uint32_t length = 0;
  if (evbuffer_copyout(input, &length, sizeof length) < (ssize_t)sizeof length) return;
  if (evbuffer_get_length(input) < sizeof length + length) return;
  evbuffer_drain(input, sizeof length + length);
  bufferevent_setcb(client, NULL, written, ended, NULL);
  bufferevent_write(client, "\0\0\0\0", 4);
}

static void accepted(struct evconnlistener* listener, evutil_socket_t client,
                     struct sockaddr* address, int length, void* base) {
  (void)listener;
  (void)address;
  (void)length;
  struct bufferevent* const made = bufferevent_socket_new(base, client, BEV_OPT_CLOSE_ON_FREE);
  bufferevent_setcb(made, readable, NULL, ended, NULL);
  bufferevent_enable(made, EV_READ | EV_WRITE);
}

int main(int argc, char** argv) {
  struct sockaddr_un address = {.sun_family = AF_UNIX};
  if (argc != 2 || strlen(argv[1]) >= sizeof address.sun_path) return 2;
  strcpy(address.sun_path, argv[1]);
  struct event_base* const base = event_base_new();
  unlink(argv[1]);
  if (evconnlistener_new_bind(base, accepted, base, LEV_OPT_CLOSE_ON_FREE | LEV_OPT_CLOSE_ON_EXEC,
                              20, (const struct sockaddr*)&address, sizeof address) == NULL ||
      chmod(argv[1], 0666) != 0)
    return 1;
  return event_base_dispatch(base);
}
