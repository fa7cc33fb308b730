// Internals of the exported C functions, visible to the library's own tests.
#pragma once

#include "orvaccess/orvaccess.h"

// Copies the fields of the short tracking record out of a full one.
void orvaPackTrkData(const s_OrvAccessTrkDataExt& in, s_OrvAccessTrkData* out);
