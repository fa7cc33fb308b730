// Bookkeeping of the meta-packet parser beyond its queues and latest records.
#pragma once

#include <cstdint>

struct MetaState {};
