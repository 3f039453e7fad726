#ifndef NBASE_NLISTENEREMISSION_P_H
#define NBASE_NLISTENEREMISSION_P_H

#include <QtCore/QList>
#include <QtCore/QSet>
#include <QtCore/QtGlobal>

/**
 * The listeners of a source that a signal has not been emitted on yet, for as long as it is being emitted.
 * Receivers may stop or delete listeners, which then leave all emissions that are in progress, and may cause other
 * emissions meanwhile, so that the emissions form a stack.
 */
template <class Listener, typename Source> class NListenerEmission
{
public:
    /** @param innermost where the owner of the listeners has its innermost emission, or null. */
    NListenerEmission(NListenerEmission** innermost, const Source& source, const QSet<Listener*>& listeners)
        : m_innermost(innermost)
        , m_outer(*innermost)
        , m_source(source)
        , m_listeners(listeners.values())
    {
        *m_innermost = this;
    }

    ~NListenerEmission() { *m_innermost = m_outer; }

    /** The next listener, which leaves the emission; null at the end. */
    Listener* next() { return m_listeners.isEmpty() ? nullptr : m_listeners.takeFirst(); }

    /** @a listener leaves the emissions of @a source. */
    static void remove(NListenerEmission* innermost, const Source& source, Listener* listener)
    {
        for (NListenerEmission* emission = innermost; emission; emission = emission->m_outer) {
            if (emission->m_source == source)
                emission->m_listeners.removeAll(listener);
        }
    }

    /** @a listener leaves all emissions. */
    static void remove(NListenerEmission* innermost, Listener* listener)
    {
        for (NListenerEmission* emission = innermost; emission; emission = emission->m_outer)
            emission->m_listeners.removeAll(listener);
    }

    /** All listeners leave the emissions of @a source. */
    static void clear(NListenerEmission* innermost, const Source& source)
    {
        for (NListenerEmission* emission = innermost; emission; emission = emission->m_outer) {
            if (emission->m_source == source)
                emission->m_listeners.clear();
        }
    }

private:
    Q_DISABLE_COPY(NListenerEmission)

    NListenerEmission** const m_innermost;
    NListenerEmission* const m_outer;
    const Source m_source;
    QList<Listener*> m_listeners;
};

#endif
