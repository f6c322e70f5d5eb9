// The comment that a newly created group carries: its creation date and time.
#pragma once

#include <string>

#include "platform/time.h"

namespace qx {

// Two-digit month/day/year and 24-hour time, joined by ", " (always 18 characters):
//   2026-11-17 10:31:00 => "11/17/26, 10:31:00"    2005-01-02 03:04:05 => "01/02/05, 03:04:05"
std::string GroupCommentText(const SYSTEMTIME& st);
// GroupCommentText of the local time now.
std::string LocalGroupCommentText();

}  // namespace qx
