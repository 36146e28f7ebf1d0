#include "tests/support/temp_dir.h"
