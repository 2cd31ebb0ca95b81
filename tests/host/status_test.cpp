#include <gtest/gtest.h>

#include "kt/status.h"

namespace MetricsFramework {
namespace {

TEST(StatusTest, EveryValueHasItsFixedNumberAndName) {
  const struct {
    KT_STATUS value;
    KT_STATUS number;
    const char* name;
  } table[] = {
      {KT_STATUS_SUCCESS, 0, "KT_STATUS_SUCCESS"},
      {KT_STATUS_INVALID_OBJECT, 2, "KT_STATUS_INVALID_OBJECT"},
      {KT_STATUS_INVALID_OPERATION, 4, "KT_STATUS_INVALID_OPERATION"},
      {KT_STATUS_DOES_NOT_EXIST, 5, "KT_STATUS_DOES_NOT_EXIST"},
      {KT_STATUS_ALREADY_EXISTS, 6, "KT_STATUS_ALREADY_EXISTS"},
      {KT_STATUS_INVALID_ARGUMENT, 7, "KT_STATUS_INVALID_ARGUMENT"},
      {KT_STATUS_NON_UNIQUE, 8, "KT_STATUS_NON_UNIQUE"},
      {KT_STATUS_LOOKUP_FAILED, 9, "KT_STATUS_LOOKUP_FAILED"},
      {KT_STATUS_INVALID_SIZE, 10, "KT_STATUS_INVALID_SIZE"},
      {KT_STATUS_OUT_OF_RESOURCES, 11, "KT_STATUS_OUT_OF_RESOURCES"},
      {KT_STATUS_UNSUPPORTED_EXTENSION, 14, "KT_STATUS_UNSUPPORTED_EXTENSION"},
      {KT_STATUS_NOT_AVAILABLE, 18, "KT_STATUS_NOT_AVAILABLE"},
      {KT_STATUS_PARTIAL_FAILURE, 20, "KT_STATUS_PARTIAL_FAILURE"},
  };
  for (const auto& row : table) {
    EXPECT_EQ(row.value, row.number) << row.name;
    EXPECT_STREQ(StatusName(row.number), row.name) << row.number;
  }
  for (KT_STATUS gap : {1u, 3u, 12u, 13u, 15u, 16u, 17u, 19u, 21u}) {
    EXPECT_EQ(StatusName(gap), nullptr) << gap;
  }
}

}  // namespace
}  // namespace MetricsFramework
