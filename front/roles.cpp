#include "front/roles.h"
