#include "ipc/packet.h"
