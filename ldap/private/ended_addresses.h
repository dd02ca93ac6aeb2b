#pragma once

#include <cstddef>
#include <memory>
#include <vector>

namespace tavo::ldap {

/// Keeps the addresses of ended objects from being given to others too soon: of the last `kKept`, in the
/// order of their end. Not thread-safe.
///
/// An object made by `std::make_shared` lies in the same block as its counters, which weak owners keep: the
/// object is destroyed with its last owner, but its address stays taken.
class EndedAddresses
{
public:
    static constexpr std::size_t kKept = 4096;

    /// Makes room for the addresses of so many objects, so that their ends can be noted without memory.
    /// \throws std::bad_alloc
    void makeRoomFor(std::size_t objects);

    /// Notes the end of an object that `std::make_shared` has made, and forgets that of the object `kKept`
    /// ends before.
    void add(const std::shared_ptr<const void>& ended) noexcept;

private:
    std::vector<std::weak_ptr<const void>> m_kept;
    /// Where the next one goes when all places are taken.
    std::size_t m_earliest = 0;
};

} // namespace tavo::ldap
