#include "common/path_safety.h"
