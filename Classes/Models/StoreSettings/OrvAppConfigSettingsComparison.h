#pragma once
// Deep comparison of the records' sub-objects and lists: two records are equal when everything they
// hold is equal, whether or not they share the instances.
#include <memory>
#include <optional>
#include <vector>

namespace orv::detail {

template <class T>
bool sameObject(const std::shared_ptr<T>& a, const std::shared_ptr<T>& b) {
  if (a == b) return true;
  return a && b && *a == *b;
}

template <class T>
bool sameObjects(const std::optional<std::vector<std::shared_ptr<T>>>& a,
                 const std::optional<std::vector<std::shared_ptr<T>>>& b) {
  if (a.has_value() != b.has_value()) return false;
  if (!a) return true;
  if (a->size() != b->size()) return false;
  for (std::size_t i = 0; i < a->size(); ++i) {
    if (!sameObject((*a)[i], (*b)[i])) return false;
  }
  return true;
}

}  // namespace orv::detail
