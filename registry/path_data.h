// PathData: the payload base of every registry node.
//
// Each node owns exactly one payload. Constructing a PathData (or any state
// object derived from it) on a node destroys the payload the node held until
// then and takes its place; destroying the node destroys its payload. The words
// are plain fields, guarded by whatever guards the node's user.
#ifndef KT_REGISTRY_PATH_DATA_H_
#define KT_REGISTRY_PATH_DATA_H_

namespace MetricsFramework {

class Path;

// Resource types: the kind word of a payload.
enum : unsigned long {
  RESOURCE_TYPE_CONSUMER = 1,
  RESOURCE_TYPE_METRIC = 4,
  RESOURCE_TYPE_PROBE_METRIC = 8,
  RESOURCE_TYPE_NODE = 16,
  RESOURCE_TYPE_PUBLISHER = 32,
  RESOURCE_TYPE_REMOTE_METHOD = 128,
  RESOURCE_TYPE_PROBE = 256,
  RESOURCE_TYPE_METRIC_BINDING = 512,
  RESOURCE_TYPE_PEER = ~0ul,
};

class PathData {
 public:
  // Becomes `path`'s payload, replacing (and destroying) the previous one.
  explicit PathData(Path* path);
  PathData(const PathData&) = delete;
  PathData& operator=(const PathData&) = delete;
  virtual ~PathData();

  unsigned long m_type;   // resource type; 16 for a plain node
  unsigned long m_state;  // the state classes use its low 32 bits
  Path* m_owner;          // set by state classes (a metric's publisher node)
  unsigned long m_data;   // the descriptor word of the extension's module
  Path* m_path;           // the node that owns this payload
};

}  // namespace MetricsFramework

#endif  // KT_REGISTRY_PATH_DATA_H_
