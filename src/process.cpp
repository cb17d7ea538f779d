#include "process.h"

std::atomic<int> doexit{0};
