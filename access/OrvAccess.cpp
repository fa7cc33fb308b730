#include "orvaccess/OrvAccess.hpp"

#include "osi/OrvosiUtil.hpp"

OrvAccess::OrvAccess() = default;

OrvAccess::~OrvAccess() = default;

std::string OrvAccess::getVersion() { return "1.23.00"; }

std::string OrvAccess::getBuildDate() { return "Sep 25 2017"; }

unsigned long OrvAccess::getTimeUs() { return OrvosiUtil::getTimeSysUs(); }
