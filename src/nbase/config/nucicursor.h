#ifndef NBASE_NUCICURSOR_H
#define NBASE_NUCICURSOR_H

#include <nbase/nbaseglobal.h>
#include <nbase/network/nmacaddress.h>

#include <QtCore/QByteArray>
#include <QtCore/QHash>
#include <QtCore/QList>
#include <QtCore/QString>
#include <QtCore/QStringList>
#include <QtCore/QVariant>
#include <QtNetwork/QHostAddress>

struct uci_context;
struct uci_option;
struct uci_package;
struct uci_ptr;
struct uci_section;

/**
 * Access to the device's UCI configuration store: packages, which consist of sections, which consist of options. A
 * change is first made in memory, is staged by save(), and becomes part of the configuration by commit(); revert()
 * drops it.
 *
 * Packages, sections and options are addressed by their plain names; "@type[index]" is not supported. An unnamed
 * section is addressed by its generated name. All names and values are Latin-1: other characters become "?", and a
 * text with a NUL character, which the store cannot represent, is refused. A null or empty name is refused as well
 * and never addresses the parent element, and so is a package name with a "/", which would be a path.
 *
 * Names of new sections and options consist of letters, digits and "_", types of printable ASCII characters
 * without blanks, and values contain no control characters but tabs and line ends. A change that its files cannot
 * represent is refused by the store of this tree, and dropped by libuci when the staged changes are read, which a
 * commit does, too.
 *
 * Failures are reported only by the results. The causes are a name that does not exist or is not allowed, or a
 * file that cannot be read or written. Returned pointers are owned by the store; they are valid until the package
 * is unloaded, loaded again, committed or reverted, or the element is deleted.
 *
 * A cursor is used by one thread. The context of the store is kept until the process ends, longer than the cursor,
 * so that pointers stay valid: create few cursors and keep them.
 */
class NBASE_EXPORT NUciCursor
{
public:
    /**
     * @param confDir the directory of the package files; null for the store's default, "/etc/config".
     * @param saveDir the directory of the staged changes; null for the store's default, "/tmp/.uci".
     * If the store cannot be initialised with these, every operation of the cursor fails.
     */
    NUciCursor(const QString& confDir, const QString& saveDir);
    virtual ~NUciCursor();

    /**
     * Sets the directory of the packages that are loaded from now on.
     * @return false, with the directory unchanged, if @a dir is null or contains a NUL character.
     */
    bool setConfDir(const QString& dir);

    /**
     * Sets the directory in which changes are staged; those in the previous ones are still read.
     * @return false, with the directory unchanged, if @a dir is null or contains a NUL character.
     */
    bool setSaveDir(const QString& dir);

    /**
     * The loaded package whose name is @a name up to its first ".".
     * @param load whether to load it if it is not loaded yet.
     * @return the package, or null.
     */
    uci_package* findPackage(const QString& name, bool load);

    /** Reads a package and its staged changes from the files; changes that are not saved are lost, even if it
     * cannot be read. */
    bool load(const QString& package);

    /** Frees a package; its changes that are not saved are lost. @return false if it is not loaded. */
    bool unload(const QString& package);

    /** The package, loaded if necessary; null if it does not exist or cannot be read. */
    uci_package* package(const QString& package);

    /** Stages the changes of a package in the save directory: other programs read them, the package file is not
     * changed. */
    bool save(const QString& package);

    /**
     * Writes the changes of a package, and all staged changes, including those of other programs, to its file. The
     * file is read again first, so that commits of other programs are kept.
     * @return false if the file cannot be read or written. It is unchanged then, and the changes are staged, if
     * that was possible.
     */
    bool commit(const QString& package);

    /** Drops the changes of a package, and all staged changes, including those of other programs. */
    bool revert(const QString& package);

    /** The section, or null. */
    uci_section* section(const QString& package, const QString& section);

    /**
     * Adds an unnamed section. If two programs do so at the same time, both may get the same generated name, and
     * the options of both are committed to one section: setSection() avoids that with a name of its own.
     * @return the section with its generated name, or null.
     */
    uci_section* addSection(const QString& package, const QString& type);

    /** Creates the named section, or changes its type if it exists; an empty type deletes it, a null one fails. */
    bool setSection(const QString& package, const QString& section, const QString& type);

    /**
     * @{
     * Renames or deletes a section. A new name must not be taken. The form "...IfExists" also succeeds if the
     * section does not exist.
     * @return whether it succeeded.
     */
    bool renameSection(const QString& package, const QString& section, const QString& newName);
    bool renameSectionIfExists(const QString& package, const QString& section, const QString& newName);
    bool deleteSection(const QString& package, const QString& section);
    bool deleteSectionIfExists(const QString& package, const QString& section);
    /** @} */

    /**
     * Moves a section to @a position among the sections of its package, counted from 0. A negative number is the
     * first position, one that is too large the last.
     */
    bool reorder(const QString& package, const QString& section, int position);

    /** The sections of the type @a type in the order of the file. */
    QList<uci_section*> sections(const QString& package, const QString& type);

    /** All sections of @a package by their names. */
    static QHash<QString, uci_section*> packageSections(const uci_package* package);

    /** All options of @a section by their names. */
    static QHash<QString, uci_option*> sectionOptions(const uci_section* section);

    /** The option, or null. */
    uci_option* option(const QString& package, const QString& section, const QString& option);

    /** Sets an option of an existing section to one value; an empty one deletes the option, because the store has
     * no empty values. */
    bool setOption(const QString& package, const QString& section, const QString& option, const QString& value);

    /**
     * Sets an option of an existing section to a list.
     * @return false, with the option unchanged, for an empty list and for one with a control character; false if
     * an item could not be added, with the items before it added.
     */
    bool
    setOption(const QString& package, const QString& section, const QString& option, const QStringList& values);

    /** Stores bytes as a list of pieces of their Base64 text (RFC 4648), each of 512 characters except the last.
     */
    bool setOption(const QString& package, const QString& section, const QString& option, const QByteArray& value);

    /**
     * @{
     * Renames or deletes an option. A new name must not be taken. The form "...IfExists" also succeeds if the
     * option does not exist.
     * @return whether it succeeded.
     */
    bool
    renameOption(const QString& package, const QString& section, const QString& option, const QString& newName);
    bool renameOptionIfExists(
        const QString& package, const QString& section, const QString& option, const QString& newName);
    bool deleteOption(const QString& package, const QString& section, const QString& option);
    bool deleteOptionIfExists(const QString& package, const QString& section, const QString& option);
    /** @} */

    /** The value as a QString, or as a QStringList for a list; invalid if the option is null. */
    static QVariant optionValue(const uci_option* option);

    /** The value as a bool; invalid for a list and for a text that is not in booleanValues(). */
    static QVariant optionBooleanValue(const uci_option* option);

    /** The texts for true and false; they are matched exactly. */
    static QHash<QString, bool> booleanValues();

    /**
     * @{
     * The value of an option, converted to the type that the operation names. @a defaultValue if the option does
     * not exist, is a list, or its whole text is not a value of the type. Whole numbers are decimal.
     */
    QString optionAsString(
        const QString& package, const QString& section, const QString& option, const QString& defaultValue);
    short optionAsShort(const QString& package, const QString& section, const QString& option, short defaultValue);
    unsigned short optionAsUShort(
        const QString& package, const QString& section, const QString& option, unsigned short defaultValue);
    int optionAsInt(const QString& package, const QString& section, const QString& option, int defaultValue);
    unsigned int
    optionAsUInt(const QString& package, const QString& section, const QString& option, unsigned int defaultValue);
    long optionAsLong(const QString& package, const QString& section, const QString& option, long defaultValue);
    unsigned long optionAsULong(
        const QString& package, const QString& section, const QString& option, unsigned long defaultValue);
    long long optionAsLongLong(
        const QString& package, const QString& section, const QString& option, long long defaultValue);
    unsigned long long optionAsULongLong(
        const QString& package, const QString& section, const QString& option, unsigned long long defaultValue);
    float optionAsFloat(const QString& package, const QString& section, const QString& option, float defaultValue);
    double
    optionAsDouble(const QString& package, const QString& section, const QString& option, double defaultValue);
    bool optionAsBoolean(const QString& package, const QString& section, const QString& option, bool defaultValue);
    NMacAddress optionAsMacAddress(
        const QString& package, const QString& section, const QString& option, const NMacAddress& defaultValue);
    QHostAddress optionAsIpv4Address(
        const QString& package, const QString& section, const QString& option, const QHostAddress& defaultValue);
    /** @} */

    /** The items of a list; the default for a single value. */
    QStringList optionAsStringList(
        const QString& package, const QString& section, const QString& option, const QStringList& defaultValue);

    /**
     * The bytes whose Base64 text is the value, or the joined items of a list. The default if the text is not
     * canonical (wrong length, other characters).
     */
    QByteArray optionAsByteArray(
        const QString& package, const QString& section, const QString& option, const QByteArray& defaultValue);

private:
    Q_DISABLE_COPY(NUciCursor)

    class Address;

    bool lookup(const Address& address, uci_ptr& pointer) const;
    bool find(const Address& address, uci_ptr& pointer, int type) const;
    const char* optionText(const QString& package, const QString& section, const QString& option) const;

    uci_context* m_context;
};

#endif
