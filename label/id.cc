#include "label/id.h"
