// Holds an object while its own code runs above handlers that may drop it.
#pragma once

#include <memory>
#include <utility>

namespace quenmark::platform {

// The object counts in `m_keeps`, open to its friend Keep, the references that are none of an owner's: when it has no
// others left, its owners have dropped it.
template <typename Object>
class Keep {
 public:
  // `others`: references that do not count as an owner's either, such as that of whoever raises an event of the object.
  explicit Keep(std::shared_ptr<Object> object, long others = 0) : m_object(std::move(object)), m_count(1 + others) {
    m_object->m_keeps += m_count;
  }
  explicit Keep(Object& object, long others = 0) : Keep(object.shared_from_this(), others) {}
  ~Keep() { m_object->m_keeps -= m_count; }
  Keep(const Keep&) = delete;
  Keep& operator=(const Keep&) = delete;

 private:
  const std::shared_ptr<Object> m_object;
  const long m_count;
};

}  // namespace quenmark::platform
