#include "common/traversal.h"
