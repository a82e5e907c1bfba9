#include "common/config.h"
