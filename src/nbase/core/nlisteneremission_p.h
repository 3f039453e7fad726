#ifndef NBASE_NLISTENEREMISSION_P_H
#define NBASE_NLISTENEREMISSION_P_H

#include <QtCore/QObject>
#include <QtCore/QPointer>
#include <QtCore/QSet>
#include <QtCore/QVarLengthArray>

/**
 * The listeners of a source that a signal has not been emitted on yet, for as long as it is being emitted.
 * Receivers may stop or delete listeners, which then leave all emissions that are in progress, and may cause other
 * emissions meanwhile, so that the emissions form a stack.
 */
template <class Listener, typename Source> class NListenerEmission
{
public:
    /**
     * @param innermost where the owner of the listeners has its innermost emission, or null.
     * @param source what the listeners listen on. When it is an object that may be deleted meanwhile, Source is a
     * QPointer, because another object can be created at its address.
     * @param device what isBusy() answers for until the end of the emission, or null.
     */
    NListenerEmission(
        NListenerEmission** innermost, const Source& source, const QSet<Listener*>& listeners, QObject* device)
        : m_innermost(innermost)
        , m_outer(*innermost)
        , m_source(source)
        , m_next(0)
        , m_device(device)
    {
        for (typename QSet<Listener*>::const_iterator i = listeners.constBegin(); i != listeners.constEnd(); ++i)
            m_listeners.append(*i);
        *m_innermost = this;
    }

    ~NListenerEmission() { *m_innermost = m_outer; }

    /** The next listener, which leaves the emission; null at the end. */
    Listener* next()
    {
        while (m_next < m_listeners.size()) {
            Listener* const listener = m_listeners[m_next++];
            if (listener)
                return listener;
        }
        return nullptr;
    }

    /**
     * @a listener leaves the emissions of @a source.
     * @tparam Key a type that Source can be compared with, which may be a pointer to an object that is gone.
     */
    template <typename Key> static void remove(NListenerEmission* innermost, const Key& source, Listener* listener)
    {
        for (NListenerEmission* emission = innermost; emission; emission = emission->m_outer) {
            if (emission->m_source == source)
                emission->remove(listener);
        }
    }

    /** @a listener leaves all emissions. */
    static void remove(NListenerEmission* innermost, Listener* listener)
    {
        for (NListenerEmission* emission = innermost; emission; emission = emission->m_outer)
            emission->remove(listener);
    }

    /** All listeners leave the emissions of @a source. */
    template <typename Key> static void clear(NListenerEmission* innermost, const Key& source)
    {
        for (NListenerEmission* emission = innermost; emission; emission = emission->m_outer) {
            if (emission->m_source == source)
                emission->m_listeners.clear();
        }
    }

    /** Whether an emission with the existing object @a device is in progress. */
    static bool isBusy(const NListenerEmission* innermost, const QObject* device)
    {
        for (const NListenerEmission* emission = innermost; emission; emission = emission->m_outer) {
            if (emission->m_device == device)
                return true;
        }
        return false;
    }

private:
    Q_DISABLE_COPY(NListenerEmission)

    void remove(const Listener* listener)
    {
        for (int i = m_next; i < m_listeners.size(); ++i) {
            if (m_listeners[i] == listener)
                m_listeners[i] = nullptr;
        }
    }

    NListenerEmission** const m_innermost;
    NListenerEmission* const m_outer;
    const Source m_source;
    QVarLengthArray<Listener*, 16> m_listeners; // null for those that have left
    int m_next;
    const QPointer<QObject> m_device;
};

#endif
