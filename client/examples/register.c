// Registers a session with the Korvel helper, or withdraws it:
//
//   cc -o register register.c -lkorvel_rnr
//   ./register /tmp/abc.dat
//   ./register --resign /tmp/abc.dat

#include <stdio.h>
#include <string.h>

#include "client/korvel_rnr.h"

enum { kTimeout_ms = 60000 };

int main(int argc, char** argv) {
  const int resign = argc == 3 && strcmp(argv[1], "--resign") == 0;
  if (argc != 2 && !resign) {
    fprintf(stderr, "usage: %s [--resign] RESTORE-FILE\n", argv[0]);
    return KORVEL_RNR_WRONG_USE;
  }
  const char* const file = argv[argc - 1];
  const korvel_rnr_status status =
      resign ? korvel_rnr_resign(KORVEL_RNR_SHARED_ENDPOINT, file, kTimeout_ms)
             : korvel_rnr_register(KORVEL_RNR_SHARED_ENDPOINT, file, kTimeout_ms);
  if (status != KORVEL_RNR_DONE) fprintf(stderr, "%s: %s\n", file, korvel_rnr_status_text(status));
  return (int)status;
}
