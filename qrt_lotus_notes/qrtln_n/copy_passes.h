// How a 64-bit size is copied, and a 64-bit position told, with 32-bit counts.
#pragma once

#include "notes_api/types.h"

// The lengths of the passes that together copy high * 2^32 + low bytes. All passes but the first
// and the last copy 2^32 - 1 bytes: the first makes up for the one byte that each of these lacks.
class CopyPasses {
  public:
    constexpr CopyPasses(DWORD low, DWORD high) : m_low(low), m_high(high) {}

    // The length of the first pass.
    constexpr DWORD first() {
        if (m_low <= kLongestPass - m_high) {
            const DWORD sum = m_low + m_high;
            m_low = 0;
            return sum;
        }
        // Not run by a test: a copy of more than 4 GiB.
        return m_high;
    }
    // The length of each pass after it; 0 ends the copy.
    constexpr DWORD next() {
        if (m_high != 0) {
            // Not run by a test: a copy of more than 4 GiB.
            --m_high;
            return kLongestPass;
        }
        const DWORD rest = m_low;
        m_low = 0;
        return rest;
    }

  private:
    static constexpr DWORD kLongestPass = 0xFFFFFFFF;

    DWORD m_low;
    DWORD m_high;
};

// How far a copy has got.
class CopyPosition {
  public:
    constexpr void advance(DWORD count) {
        m_low += count;
        m_high += m_low < count ? 1 : 0; // the carry
    }
    constexpr DWORD low() const { return m_low; }
    constexpr DWORD high() const { return m_high; }

  private:
    DWORD m_low = 0;
    DWORD m_high = 0;
};
