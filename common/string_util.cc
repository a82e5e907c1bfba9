#include "common/string_util.h"
