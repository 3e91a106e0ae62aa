// A report for programs.
#ifndef KELADM_STATUSFORMATS_H
#define KELADM_STATUSFORMATS_H

#include "statusReport.h"

#include <nlohmann/json.hpp>
#include <string>

nlohmann::ordered_json StatusJson(const StatusReport &report);

// The text exposition format of metrics: every line ends in a newline. Times are seconds, as usual there.
std::string StatusMetrics(const StatusReport &report);

#endif
