// Shared handles of the core library: StrongPtr (owning) and WeakPtr (observing).
// Counts are atomic; a handle is empty when it has no control block, no object, a null
// object pointer, or a negative strong count (its object is being destroyed).
#pragma once

#include <atomic>
#include <cstddef>
#include <new>
#include <type_traits>
#include <utility>

namespace Vorlap {

namespace detail {

// Reference counts shared by every handle of one object.
struct ControlBlock {
  std::atomic<long> strong{1};
  std::atomic<long> weak{1};  // one extra while strong > 0
  bool hasObject = true;

  virtual ~ControlBlock() = default;
  virtual void destroyObject() noexcept = 0;

  void addStrong() noexcept { strong.fetch_add(1, std::memory_order_relaxed); }
  void addWeak() noexcept { weak.fetch_add(1, std::memory_order_relaxed); }

  void releaseStrong() noexcept {
    if (strong.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
    // Negative while the object dies, so handles met during destruction test empty.
    strong.store(-1, std::memory_order_release);
    destroyObject();
    hasObject = false;
    releaseWeak();
  }

  void releaseWeak() noexcept {
    if (weak.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
  }

  // Takes a strong reference only while the object is alive.
  bool tryAddStrong() noexcept {
    long n = strong.load(std::memory_order_acquire);
    while (n > 0) {
      if (strong.compare_exchange_weak(n, n + 1, std::memory_order_acq_rel)) return true;
    }
    return false;
  }
};

template <class T>
struct SeparateBlock final : ControlBlock {
  T* object;
  explicit SeparateBlock(T* p) : object(p) {}
  void destroyObject() noexcept override { delete object; }
};

template <class T>
struct InlineBlock final : ControlBlock {
  alignas(T) unsigned char storage[sizeof(T)];
  T* object() noexcept { return std::launder(reinterpret_cast<T*>(storage)); }
  void destroyObject() noexcept override { object()->~T(); }
};

}  // namespace detail

template <class T>
class WeakPtr;
template <class T>
class ReferenceBase;

template <class T>
class StrongPtr {
 public:
  using element_type = T;

  StrongPtr() noexcept = default;
  StrongPtr(std::nullptr_t) noexcept {}
  explicit StrongPtr(T* object) : ptr_(object) {
    if (object) {
      cb_ = new detail::SeparateBlock<T>(object);
      bindSelf();
    }
  }
  StrongPtr(const StrongPtr& o) noexcept : ptr_(o.ptr_), cb_(o.cb_) { acquire(); }
  StrongPtr(StrongPtr&& o) noexcept : ptr_(o.ptr_), cb_(o.cb_) {
    o.ptr_ = nullptr, o.cb_ = nullptr;
  }
  template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
  StrongPtr(const StrongPtr<U>& o) noexcept : ptr_(o.ptr_), cb_(o.cb_) {
    acquire();
  }
  ~StrongPtr() { release(); }

  StrongPtr& operator=(StrongPtr o) noexcept {
    swap(o);
    return *this;
  }

  void swap(StrongPtr& o) noexcept {
    std::swap(ptr_, o.ptr_);
    std::swap(cb_, o.cb_);
  }
  void reset() noexcept { StrongPtr().swap(*this); }

  // The emptiness test every caller applies before use.
  bool isEmpty() const noexcept {
    return cb_ == nullptr || ptr_ == nullptr || !cb_->hasObject ||
           cb_->strong.load(std::memory_order_acquire) < 0;
  }
  explicit operator bool() const noexcept { return !isEmpty(); }

  T* get() const noexcept { return ptr_; }
  T* operator->() const noexcept { return ptr_; }
  T& operator*() const noexcept { return *ptr_; }
  long useCount() const noexcept { return cb_ ? cb_->strong.load() : 0; }

  bool operator==(const StrongPtr& o) const noexcept { return ptr_ == o.ptr_; }
  bool operator!=(const StrongPtr& o) const noexcept { return ptr_ != o.ptr_; }

  template <class U>
  friend class StrongPtr;
  template <class U>
  friend class WeakPtr;
  template <class U, class... A>
  friend StrongPtr<U> makeStrong(A&&... args);
  template <class U, class V>
  friend StrongPtr<U> dynamicPtrCast(const StrongPtr<V>& p) noexcept;

 private:
  StrongPtr(T* p, detail::ControlBlock* cb) noexcept : ptr_(p), cb_(cb) {}
  void acquire() noexcept {
    if (cb_) cb_->addStrong();
  }
  void release() noexcept {
    if (cb_) cb_->releaseStrong();
    cb_ = nullptr;
    ptr_ = nullptr;
  }
  void bindSelf();

  T* ptr_ = nullptr;
  detail::ControlBlock* cb_ = nullptr;
};

template <class T>
class WeakPtr {
 public:
  WeakPtr() noexcept = default;
  template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
  WeakPtr(const StrongPtr<U>& s) noexcept : ptr_(s.ptr_), cb_(s.cb_) {
    if (cb_) cb_->addWeak();
  }
  WeakPtr(const WeakPtr& o) noexcept : ptr_(o.ptr_), cb_(o.cb_) {
    if (cb_) cb_->addWeak();
  }
  WeakPtr(WeakPtr&& o) noexcept : ptr_(o.ptr_), cb_(o.cb_) { o.ptr_ = nullptr, o.cb_ = nullptr; }
  ~WeakPtr() {
    if (cb_) cb_->releaseWeak();
  }
  WeakPtr& operator=(WeakPtr o) noexcept {
    std::swap(ptr_, o.ptr_);
    std::swap(cb_, o.cb_);
    return *this;
  }

  // Expired once the object is gone or going; empty when it never had one.
  bool isEmpty() const noexcept { return cb_ == nullptr || ptr_ == nullptr; }
  bool expired() const noexcept {
    return isEmpty() || cb_->strong.load(std::memory_order_acquire) <= 0;
  }

  StrongPtr<T> lock() const noexcept {
    if (cb_ && ptr_ && cb_->tryAddStrong()) return StrongPtr<T>(ptr_, cb_);
    return {};
  }

  template <class U>
  friend class WeakPtr;
  template <class U>
  friend class StrongPtr;

 private:
  T* ptr_ = nullptr;
  detail::ControlBlock* cb_ = nullptr;
};

// Base of reference-counted objects that need a handle to themselves.
template <class T>
class ReferenceBase {
 public:
  using ReferenceSelfType = T;
  StrongPtr<T> self() const { return weakSelf_.lock(); }

 protected:
  ReferenceBase() = default;
  ReferenceBase(const ReferenceBase&) {}
  ReferenceBase& operator=(const ReferenceBase&) { return *this; }
  ~ReferenceBase() = default;

 private:
  template <class U>
  friend class StrongPtr;
  mutable WeakPtr<T> weakSelf_;
};

template <class T>
void StrongPtr<T>::bindSelf() {
  // Also binds objects of classes derived from a ReferenceBase<B>.
  if constexpr (requires { typename T::ReferenceSelfType; }) {
    using B = typename T::ReferenceSelfType;
    static_cast<ReferenceBase<B>*>(ptr_)->weakSelf_ = WeakPtr<B>(*this);
  }
}

// One allocation for the object and its counts.
template <class T, class... A>
StrongPtr<T> makeStrong(A&&... args) {
  auto* block = new detail::InlineBlock<T>();
  try {
    ::new (static_cast<void*>(block->storage)) T(std::forward<A>(args)...);
  } catch (...) {
    block->hasObject = false;
    delete block;
    throw;
  }
  StrongPtr<T> result(block->object(), block);
  result.bindSelf();
  return result;
}

template <class U, class V>
StrongPtr<U> dynamicPtrCast(const StrongPtr<V>& p) noexcept {
  if (p.isEmpty()) return {};
  U* u = dynamic_cast<U*>(p.get());
  if (!u) return {};
  p.cb_->addStrong();
  return StrongPtr<U>(u, p.cb_);
}

template <class T>
bool isEmpty(const StrongPtr<T>& p) noexcept {
  return p.isEmpty();
}
template <class T>
bool isEmpty(const WeakPtr<T>& p) noexcept {
  return p.expired();
}

}  // namespace Vorlap
