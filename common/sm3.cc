#include "common/sm3.h"
