#include "common/path_resolve.h"
