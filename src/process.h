// Process-wide flags of the daemon's life.
#pragma once

#include <atomic>

// Set to 1 to tell the billing thread to finish; never reset.
extern std::atomic<int> doexit;
