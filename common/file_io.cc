#include "common/file_io.h"
