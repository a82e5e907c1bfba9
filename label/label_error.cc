#include "label/label_error.h"
