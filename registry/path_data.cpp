#include "registry/path_data.h"

#include "registry/path.h"

namespace MetricsFramework {

PathData::PathData(Path* path)
    : m_type(RESOURCE_TYPE_NODE), m_state(0), m_owner(nullptr), m_data(0), m_path(path) {
  if (path == nullptr) return;
  delete path->m_payload;
  path->m_payload = this;
}

PathData::~PathData() {}

}  // namespace MetricsFramework
