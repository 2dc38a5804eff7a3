#ifndef SL3D_CALIBBOARD_UNION_FIND_H_
#define SL3D_CALIBBOARD_UNION_FIND_H_

// The disjoint-set structure of the recognizers' marker grouping, also used
// by the disparity filter's patch labelling. Internal to the library (not
// exported from libsl3d.so); installed because ConnectionFinder.h needs it.

#include <vector>

// Disjoint sets over 0..n-1 with union by size. parent[i] < 0 marks a root
// and holds minus the size of its set.
class UnionFind {
 public:
  explicit UnionFind(int n);

  // The representative of `i`; compresses the path it walked.
  int root(int i);

  // Joins the sets of i and j. The larger set's root becomes the parent of
  // the other; on equal sizes the root of i stays the root.
  void unite(int i, int j);

  // Number of elements in the set whose root is `r` (r must be a root).
  int size_of_root(int r) const { return -parent[r]; }
  bool is_root(int i) const { return parent[i] < 0; }

  std::vector<int> parent;
};

#endif  // SL3D_CALIBBOARD_UNION_FIND_H_
