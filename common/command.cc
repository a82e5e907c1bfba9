#include "common/command.h"
