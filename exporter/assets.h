// SPDX-License-Identifier: Apache-2.0
//
// The files the page is made of, built into the module so that it works
// without any network: the page itself (exporter/page/index.html) and the
// chart library, taken from the system's Chart.js when the module is built.
// Read-only data: any thread.
#ifndef KT_EXPORTER_ASSETS_H_
#define KT_EXPORTER_ASSETS_H_

#include <cstddef>

namespace kt_exporter {

struct Asset {
  const char* data;
  size_t size;
};

Asset PageAsset();
Asset ChartAsset();

}  // namespace kt_exporter

#endif  // KT_EXPORTER_ASSETS_H_
