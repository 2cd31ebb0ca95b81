// SPDX-License-Identifier: Apache-2.0
#include "assets.h"

// The build names the two files (KT_PAGE_FILE, KT_CHART_FILE); the assembler
// copies them in whole. The symbols are hidden: the module shows only its
// export table and its C functions.
#define KT_ASSET(name, file)                                       \
  ".section .rodata\n"                                             \
  ".balign 16\n"                                                   \
  ".globl " #name "_begin\n.hidden " #name "_begin\n" #name "_begin:\n" \
  ".incbin \"" file "\"\n"                                         \
  ".globl " #name "_end\n.hidden " #name "_end\n" #name "_end:\n"  \
  ".previous\n"

__asm__(KT_ASSET(kt_page, KT_PAGE_FILE) KT_ASSET(kt_chart, KT_CHART_FILE));

extern "C" {
extern const char kt_page_begin[], kt_page_end[];
extern const char kt_chart_begin[], kt_chart_end[];
}

namespace kt_exporter {

Asset PageAsset() { return {kt_page_begin, static_cast<size_t>(kt_page_end - kt_page_begin)}; }
Asset ChartAsset() { return {kt_chart_begin, static_cast<size_t>(kt_chart_end - kt_chart_begin)}; }

}  // namespace kt_exporter
