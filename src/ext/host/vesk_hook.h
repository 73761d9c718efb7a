#pragma once

// One slot of the engine that holds a function the page cache stands in
// for: a handler of the server API, the compiler, a module's request
// start, a PHP function's handler. The original is kept only when the slot
// isn't ours already, and put back only while the slot is still ours, so
// that installing twice never keeps our own function as the original, and
// a restore never takes out what someone put in after us.

template <typename F>
class VeskHook
{
public:
    explicit VeskHook(F ours) : m_ours(ours) {}

    void install(F& slot)
    {
        if (slot == m_ours)
            return;
        m_original = slot;
        slot = m_ours;
    }

    void restore(F& slot)
    {
        if (slot != m_ours)
            return;
        slot = m_original;
        m_original = nullptr;
    }

    // What the slot held before; null before the first install.
    F original() const { return m_original; }

private:
    F m_ours;
    F m_original = nullptr;
};
