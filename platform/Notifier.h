// Notifiee lists: how an entity announces attribute changes to its readers.
//
// A reader derives from the entity's Notifiee class and attaches with
// notifierIs(entity). Announcements go to active notifiees in the order they
// attached; a notifiee may detach (or be destroyed) during an announcement.
#pragma once

#include <algorithm>
#include <vector>

#include "platform/Ptr.h"
#include "platform/Types.h"

namespace XpLib {

class NotifieeBase {
 public:
  bool isNotificationActive() const { return active_; }
  void isNotificationActiveIs(bool active) { active_ = active; }

 protected:
  NotifieeBase() = default;
  NotifieeBase(const NotifieeBase&) = delete;
  NotifieeBase& operator=(const NotifieeBase&) = delete;
  ~NotifieeBase() = default;

 private:
  bool active_ = true;
};

template <class N>
class NotifieeList {
 public:
  void add(N* n) {
    if (std::find(list_.begin(), list_.end(), n) == list_.end()) list_.push_back(n);
  }
  void remove(N* n) {
    auto it = std::find(list_.begin(), list_.end(), n);
    if (it == list_.end()) return;
    if (depth_ > 0) {
      *it = nullptr;  // compacted once the announcement is over
      return;
    }
    list_.erase(it);
  }
  bool empty() const { return list_.empty(); }

  template <class F>
  void announce(F&& f) {
    if (list_.empty()) return;
    ++depth_;
    for (std::size_t i = 0; i < list_.size(); ++i) {
      N* n = list_[i];
      if (n && n->isNotificationActive()) f(*n);
    }
    if (--depth_ == 0) list_.erase(std::remove(list_.begin(), list_.end(), nullptr), list_.end());
  }

 private:
  std::vector<N*> list_;
  U32 depth_ = 0;
};

// Base of an entity's Notifiee: keeps the entity alive and attached.
// `Entity` must offer notifieeAdd(Self*) and notifieeRemove(Self*).
template <class Entity, class Self>
class BaseNotifiee : public NotifieeBase {
 public:
  ~BaseNotifiee() {
    if (notifier_) notifier_->notifieeRemove(static_cast<Self*>(this));
  }
  const Ptr<Entity>& notifier() const { return notifier_; }
  void notifierIs(const Ptr<Entity>& n) {
    if (n == notifier_) return;
    if (notifier_) notifier_->notifieeRemove(static_cast<Self*>(this));
    notifier_ = n;
    if (notifier_) notifier_->notifieeAdd(static_cast<Self*>(this));
  }

 private:
  Ptr<Entity> notifier_;
};

}  // namespace XpLib
