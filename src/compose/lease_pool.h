#pragma once

#include <memory>
#include <mutex>
#include <new>
#include <utility>
#include <vector>

namespace nvo {

/// Objects that are costly to make and serve one user at a time. `take` never waits: it hands out an idle
/// object, or a new one. An object outlives its lease and serves the next.
template <class Object>
class LeasePool {
 public:
  class Lease {
   public:
    Lease(LeasePool& pool, std::unique_ptr<Object> object) : pool_(&pool), object_(std::move(object)) {}
    Lease(Lease&&) noexcept = default;
    Lease& operator=(Lease&&) = delete;
    ~Lease() {
      if (object_) pool_->give_back(std::move(object_));
    }
    Object& operator*() const { return *object_; }
    Object* operator->() const { return object_.get(); }

   private:
    LeasePool* pool_;
    std::unique_ptr<Object> object_;
  };

  Lease take() {
    {
      const std::lock_guard lock(mutex_);
      if (!idle_.empty()) {
        auto object = std::move(idle_.back());
        idle_.pop_back();
        return {*this, std::move(object)};
      }
    }
    return {*this, std::make_unique<Object>()};
  }

  /// Destroys the idle objects.
  void clear() {
    const std::lock_guard lock(mutex_);
    idle_.clear();
  }

 private:
  void give_back(std::unique_ptr<Object> object) noexcept {
    const std::lock_guard lock(mutex_);
    try {
      idle_.push_back(std::move(object));
    } catch (const std::bad_alloc&) {  // the object is let go; the next user makes another
    }
  }

  std::mutex mutex_;
  std::vector<std::unique_ptr<Object>> idle_;
};

}  // namespace nvo
