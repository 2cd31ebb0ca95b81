// SPDX-License-Identifier: Apache-2.0
#include "exposition.h"

#include <prometheus/metric_family.h>
#include <prometheus/text_serializer.h>

#include <cctype>
#include <cmath>
#include <cstdio>
#include <map>

namespace kt_exporter {

using MetricsFramework::ValueConvention::kTypeCounter;

namespace {

bool EndsWith(const std::string& text, const std::string& end) {
  return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

// The family name of a metric, and the factor that turns its values into the
// unit the name ends with.
std::string NameOf(const MetricInfo& info, std::string* unit, double* factor) {
  std::string name = SanitizeName(info.publisher.empty() ? info.uri : info.publisher + "_" + info.uri);
  const char* suffix = nullptr;
  *factor = 1;
  unit->clear();
  if (MetricsFramework::ValueConvention::BaseUnit(info.unit, &suffix, factor)) {
    *unit = suffix;
    if (!EndsWith(name, "_" + *unit)) name += "_" + *unit;
  }
  // "_total" belongs to a counter's samples, not to its family.
  if (info.type == kTypeCounter && EndsWith(name, "_total") && name.size() > 6) {
    name.resize(name.size() - 6);
  }
  return name;
}

// Escapes a HELP text or (with `quotes`) a label value.
std::string Escaped(const std::string& text, bool quotes) {
  std::string out;
  for (char c : text) {
    if (c == '\\') out += "\\\\";
    else if (c == '\n') out += "\\n";
    else if (c == '"' && quotes) out += "\\\"";
    else out += c;
  }
  return out;
}

std::string Number(double value) {
  if (std::isnan(value)) return "NaN";
  if (std::isinf(value)) return value > 0 ? "+Inf" : "-Inf";
  char text[32];
  std::snprintf(text, sizeof text, "%.17g", value);
  return text;
}

// Two metrics under one name and process are told apart by their paths.
void LabelDuplicates(std::vector<Family>* families,
                     const std::vector<std::vector<std::string>>& paths) {
  for (size_t f = 0; f < families->size(); ++f) {
    std::map<std::string, int> perProcess;
    for (const FamilySample& sample : (*families)[f].samples) ++perProcess[sample.labels[0].second];
    for (size_t s = 0; s < (*families)[f].samples.size(); ++s) {
      FamilySample& sample = (*families)[f].samples[s];
      if (perProcess[sample.labels[0].second] > 1) sample.labels.push_back({"path", paths[f][s]});
    }
  }
}

}  // namespace

std::string SanitizeName(const std::string& text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    const bool upper = std::isupper(c) != 0;
    if (upper && i > 0) {
      const unsigned char before = static_cast<unsigned char>(text[i - 1]);
      const bool nextLower = i + 1 < text.size() && std::islower(static_cast<unsigned char>(text[i + 1]));
      if (std::islower(before) || std::isdigit(before) || (std::isupper(before) && nextLower)) {
        out += '_';
      }
    }
    const bool keep = c < 0x80 && (std::isalnum(c) != 0);
    const char next = keep ? static_cast<char>(std::tolower(c)) : '_';
    if (next == '_' && (out.empty() || out.back() == '_')) continue;
    out += next;
  }
  while (!out.empty() && out.back() == '_') out.pop_back();
  if (out.empty() || std::isdigit(static_cast<unsigned char>(out[0]))) out.insert(0, "_");
  return out;
}

std::vector<Family> BuildFamilies(const std::vector<ExposedSample>& samples) {
  std::vector<Family> families;
  std::vector<std::vector<std::string>> paths;  // parallel to each family's samples
  std::map<std::string, size_t> byName;
  for (const ExposedSample& sample : samples) {
    std::string unit;
    double factor = 1;
    std::string name = NameOf(sample.info, &unit, &factor);
    auto at = byName.find(name);
    // One name cannot be both a gauge and a counter: the later kind is set apart.
    if (at != byName.end() && families[at->second].type != sample.info.type) {
      name += sample.info.type == kTypeCounter ? "_counter" : "_gauge";
      at = byName.find(name);
    }
    if (at == byName.end()) {
      at = byName.emplace(name, families.size()).first;
      families.push_back(Family{name, sample.info.help, unit, sample.info.type, {}});
      paths.emplace_back();
    }
    families[at->second].samples.push_back({{{"process", sample.info.process}}, sample.value * factor});
    paths[at->second].push_back(sample.info.path);
  }
  LabelDuplicates(&families, paths);
  return families;
}

std::string PrometheusText(const std::vector<Family>& families) {
  std::vector<prometheus::MetricFamily> out;
  for (const Family& family : families) {
    prometheus::MetricFamily made;
    const bool counter = family.type == kTypeCounter;
    made.name = counter ? family.name + "_total" : family.name;
    // prometheus-cpp 1.0 writes HELP unescaped: a backslash or a line break
    // in it would break the format.
    made.help = Escaped(family.help, false);
    made.type = counter ? prometheus::MetricType::Counter : prometheus::MetricType::Gauge;
    for (const FamilySample& sample : family.samples) {
      prometheus::ClientMetric metric;
      for (const auto& label : sample.labels) metric.label.push_back({label.first, label.second});
      (counter ? metric.counter.value : metric.gauge.value) = sample.value;
      made.metric.push_back(std::move(metric));
    }
    out.push_back(std::move(made));
  }
  return prometheus::TextSerializer().Serialize(out);
}

std::string OpenMetricsText(const std::vector<Family>& families) {
  std::string out;
  for (const Family& family : families) {
    const bool counter = family.type == kTypeCounter;
    out += "# TYPE " + family.name + (counter ? " counter\n" : " gauge\n");
    if (!family.unit.empty() && EndsWith(family.name, "_" + family.unit)) {
      out += "# UNIT " + family.name + " " + family.unit + "\n";
    }
    if (!family.help.empty()) out += "# HELP " + family.name + " " + Escaped(family.help, true) + "\n";
    for (const FamilySample& sample : family.samples) {
      out += family.name + (counter ? "_total{" : "{");
      for (size_t i = 0; i < sample.labels.size(); ++i) {
        out += (i > 0 ? "," : "") + sample.labels[i].first + "=\"" +
               Escaped(sample.labels[i].second, true) + "\"";
      }
      out += "} " + Number(sample.value) + "\n";
    }
  }
  return out + "# EOF\n";
}

bool WantsOpenMetrics(const char* accept) {
  return accept != nullptr && std::string(accept).find("application/openmetrics-text") != std::string::npos;
}

}  // namespace kt_exporter
