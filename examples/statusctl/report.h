#ifndef STATUSCTL_REPORT_H
#define STATUSCTL_REPORT_H

#include <string>

#include "common/shared_figures.h"

/// Returns aligned lines for people, whatever bytes the figures hold.
std::string ToText(const SharedFigures& figures);

/// Returns one object for programs: valid JSON in UTF-8, with U+FFFD for every byte that is not UTF-8.
std::string ToJson(const SharedFigures& figures);

#endif  // STATUSCTL_REPORT_H
