#ifndef EXAMPLES_OPTIONREADER_H
#define EXAMPLES_OPTIONREADER_H

#include <QtCore/QByteArray>
#include <QtCore/QList>

#include <stddef.h>

/** A word of the command line and what it stands for. */
template <typename Value> struct Choice
{
    const char* name;
    Value value;
};

/**
 * Reads the command line of nserial and ngpio. Options and operands may be mixed, "--option value" and
 * "--option=value" are the same, and all that follows "--" are operands. Reading ends at the first error.
 */
class OptionReader
{
protected:
    explicit OptionReader(const QList<QByteArray>& arguments);
    virtual ~OptionReader();

    /** Reads what is left of m_arguments; the operands are in m_operands then. */
    void readArguments();

    /** Reads an option without a value. @return false when @a name is none. */
    virtual bool readFlag(const QByteArray& name) = 0;

    /** Reads an option with a value. @return false when @a name is none. */
    virtual bool readValue(const QByteArray& name, const QByteArray& value) = 0;

    /** Sets @a value to what @a name stands for; another name is an error. */
    template <typename Value, size_t Count>
    void choose(const Choice<Value> (&choices)[Count], const QByteArray& name, Value* value)
    {
        QByteArray names;
        for (const Choice<Value>& choice : choices) {
            if (name == choice.name) {
                *value = choice.value;
                return;
            }
            names += names.isEmpty() ? QByteArray() : QByteArray(", ");
            names += choice.name;
        }
        fail("\"" + name + "\" is not one of " + names);
    }

    /** Notes what is wrong; the first error counts. */
    void fail(const QByteArray& error);

    QList<QByteArray> m_arguments;
    QList<QByteArray> m_operands;
    QByteArray m_error; ///< empty while nothing is wrong

private:
    void readOption(QByteArray name);
};

#endif
