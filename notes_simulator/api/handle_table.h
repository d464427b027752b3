// Handles: numbers that stand for objects of one kind.
#pragma once

#include "notes_simulator/base/status.h"

#include <cstdint>
#include <map>
#include <memory>
#include <string>

namespace notes_sim {

using Handle = std::uint32_t;

/// A number that no other handle of any kind has had.
inline Handle nextHandle() {
    static Handle last = 0x100;
    return ++last;
}

/// The live objects of one kind.
template <class Object>
class HandleTable {
  public:
    Handle add(std::unique_ptr<Object> object) {
        const Handle handle = nextHandle();
        m_objects.emplace(handle, std::move(object));
        return handle;
    }

    /// Throws StatusError(kInvalidHandle).
    Object& get(Handle handle) {
        const auto found = m_objects.find(handle);
        if (found == m_objects.end()) {
            throw StatusError(kInvalidHandle, std::to_string(handle));
        }
        return *found->second;
    }

    Object* find(Handle handle) {
        const auto found = m_objects.find(handle);
        return found == m_objects.end() ? nullptr : found->second.get();
    }

    /// Takes the object out. Throws StatusError(kInvalidHandle).
    std::unique_ptr<Object> take(Handle handle) {
        get(handle);
        return std::move(m_objects.extract(handle).mapped());
    }

    std::map<Handle, std::unique_ptr<Object>>& all() { return m_objects; }
    std::size_t size() const { return m_objects.size(); }
    void clear() { m_objects.clear(); }

  private:
    std::map<Handle, std::unique_ptr<Object>> m_objects;
};

} // namespace notes_sim
