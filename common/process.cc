#include "common/process.h"
