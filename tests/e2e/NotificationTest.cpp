#include "E2eCommon.h"
