#include "label/label.h"
