// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "kestrel/containers/MapKeys.h"
#include "kestrel/core/Ptr.h"

#include <cstddef>
#include <list>
#include <utility>

namespace Mox {

/// Queue of counted references in the order of insertion. The same object may stand in it more than once, and in other queues.
///
/// *Iterators*: those of `std::list`; a deletion invalidates only its own.
template <class T> class LinkedQueue {
public:
   using Element = T;

   LinkedQueue() = default;
   LinkedQueue(LinkedQueue const& other) : nodes_(other.nodes_) {}
   /// Empties this queue and then refers to each object of `other`. Those are copied first, because `other` may belong
   /// to an object that goes when this queue is emptied. Assigning a queue to itself does nothing.
   LinkedQueue& operator=(LinkedQueue const& other) {
      if (this != &other) {
         auto taken = other.nodes_;
         clear();
         nodes_.splice(nodes_.end(), taken);
      }
      return *this;
   }
   ~LinkedQueue() { clear(); }

   bool empty() const noexcept { return nodes_.empty(); }
   std::size_t size() const noexcept { return nodes_.size(); }
   auto begin() const noexcept { return nodes_.begin(); }
   auto end() const noexcept { return nodes_.end(); }

   void push(Ptr<T> const& object) { nodes_.push_back(object); }
   /// \return the oldest element, taken out, or null
   Ptr<T> pop() noexcept {
      Ptr<T> oldest;
      if (!nodes_.empty()) {
         oldest.swap(nodes_.front());
         nodes_.pop_front();
      }
      return oldest;
   }
   /// Takes the oldest reference to `object` out. \return whether there was one
   bool remove(T const& object) noexcept {
      for (auto it = nodes_.begin(); it != nodes_.end(); ++it) {
         if (it->get() != &object)
            continue;
         Ptr<T> const removed(std::move(*it));
         nodes_.erase(it);
         return true;
      }
      return false;
   }
   /// Code that runs when an object goes finds the queue empty.
   void clear() noexcept { std::exchange(nodes_, {}).clear(); }

private:
   std::list<Ptr<T>> nodes_;
};

/// A queue whose entries also have a key, for those few that are searched by it: linear, oldest first.
template <class Entry, class Key, class Value> class LinkQueue : public LinkedQueue<Entry> {
public:
   using KeyType = Key;
   using ValueType = Value;

   template <LookupKey<Key> K = Key> Entry* find(K const& key) const {
      auto const& k = lookupKey<Key>(key);
      for (Ptr<Entry> const& entry : *this)
         if (entry->fwkKey() == k)
            return entry.get();
      return nullptr;
   }
};

} // namespace Mox
