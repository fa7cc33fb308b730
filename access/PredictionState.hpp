// State of the display-time prediction: the clock estimates that
// getTrackingDataAtTime() keeps between calls. Reset by initVsData().
#pragma once

#include <cstdint>

struct PredictionState {};
