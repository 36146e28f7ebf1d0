#include "osx/job_files.h"
