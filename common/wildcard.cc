#include "common/wildcard.h"
