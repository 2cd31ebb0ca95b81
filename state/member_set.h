// MemberSet: the metric handles of one group, as a sorted vector.
//
// Groups are small and their sets are read and refilled on every sample of
// the group: a binary search and a short move cost less than hashing, and
// refilling one set from another copies into room it already has, so a cycle
// allocates nothing once the sets have grown. Not synchronised: the owner
// guards it.
#ifndef KT_STATE_MEMBER_SET_H_
#define KT_STATE_MEMBER_SET_H_

#include <algorithm>
#include <cstddef>
#include <initializer_list>
#include <utility>
#include <vector>

namespace MetricsFramework {

class MemberSet {
 public:
  MemberSet() = default;
  MemberSet(std::initializer_list<unsigned long> members) { *this = members; }
  MemberSet& operator=(std::initializer_list<unsigned long> members) {
    sorted.assign(members);
    std::sort(sorted.begin(), sorted.end());
    sorted.erase(std::unique(sorted.begin(), sorted.end()), sorted.end());
    return *this;
  }

  // Adds `member`; the bool is false when it was there already.
  std::pair<std::vector<unsigned long>::const_iterator, bool> insert(unsigned long member) {
    auto at = std::lower_bound(sorted.begin(), sorted.end(), member);
    if (at != sorted.end() && *at == member) return {at, false};
    return {sorted.insert(at, member), true};
  }
  // Removes `member`; returns how many were removed (0 or 1).
  std::size_t erase(unsigned long member) {
    auto at = std::lower_bound(sorted.begin(), sorted.end(), member);
    if (at == sorted.end() || *at != member) return 0;
    sorted.erase(at);
    return 1;
  }
  std::size_t count(unsigned long member) const {
    return std::binary_search(sorted.begin(), sorted.end(), member) ? 1 : 0;
  }
  bool empty() const { return sorted.empty(); }
  std::size_t size() const { return sorted.size(); }
  void clear() { sorted.clear(); }
  std::vector<unsigned long>::const_iterator begin() const { return sorted.begin(); }
  std::vector<unsigned long>::const_iterator end() const { return sorted.end(); }

 private:
  std::vector<unsigned long> sorted;
};

}  // namespace MetricsFramework

#endif  // KT_STATE_MEMBER_SET_H_
