// SPDX-License-Identifier: Apache-2.0
//
// The exposition: the exporter's samples as metric families, written in the
// Prometheus text format (0.0.4) or in OpenMetrics (1.0.0).
//
// A family's name is the publisher's node name and the metric's, in snake
// case, with what the name format forbids replaced by '_', and the suffix of
// the unit's base unit where the value convention gives one (the value is then
// turned into that unit). Counters end in "_total". Each sample carries the
// label process="..." (the process the metric comes from); two metrics that
// end up under one name and process also carry path="...". Pure functions:
// any thread.
#ifndef KT_EXPORTER_EXPOSITION_H_
#define KT_EXPORTER_EXPOSITION_H_

#include <string>
#include <vector>

#include "metric_catalog.h"

namespace kt_exporter {

// One metric's latest value, as the value convention reads it.
struct ExposedSample {
  MetricInfo info;
  double value = 0;
};

struct FamilySample {
  std::vector<std::pair<std::string, std::string>> labels;
  double value = 0;
};

struct Family {
  std::string name;  // without "_total"
  std::string help;
  std::string unit;  // the suffix of the base unit, "" for none
  MetricsFramework::ValueConvention::Type type = MetricsFramework::ValueConvention::kTypeGauge;
  std::vector<FamilySample> samples;
};

// `text` made a valid metric-name part: snake case, [a-z0-9_] only, never
// starting with a digit, no run of '_'.
std::string SanitizeName(const std::string& text);
// The families of `samples`, in the order of their first sample; the value is
// turned into the base unit where the name carries one.
std::vector<Family> BuildFamilies(const std::vector<ExposedSample>& samples);
// The Prometheus text format, written by prometheus-cpp.
std::string PrometheusText(const std::vector<Family>& families);
// OpenMetrics text, ending with "# EOF".
std::string OpenMetricsText(const std::vector<Family>& families);
// Whether a scraper's Accept header asks for OpenMetrics.
bool WantsOpenMetrics(const char* accept);

}  // namespace kt_exporter

#endif  // KT_EXPORTER_EXPOSITION_H_
