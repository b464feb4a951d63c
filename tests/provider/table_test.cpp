#include "tests/provider/client.h"
