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
 * Access to the device's UCI configuration store: packages of sections of options. A change is made in memory
 * first, is staged by save(), and becomes part of the configuration by commit(); revert() throws it away.
 *
 * Packages, sections and options are addressed by their plain names, "@type[index]" is none; a section without a
 * name is addressed by its generated one. All names and values are Latin-1: other characters become "?", and a
 * text with a NUL character, which the store cannot hold, is refused. So is a null or empty name, which never
 * stands for what contains it, and a package name with a "/", which would be a path.
 *
 * The store takes any name and value into memory; it drops those that its files cannot hold when it reads the
 * staged changes, for a commit too. Names of new sections and options have to be letters, digits and "_", types
 * printable ASCII characters without blanks, and values have no control characters but tabs and line ends.
 *
 * Failures are told by the results alone; the causes are a name that is not there or not allowed, or a file that
 * cannot be read or written. Pointers that are handed out belong to the store; they are valid until the package is
 * unloaded, loaded again, committed or reverted, or what they point to is deleted.
 *
 * A cursor is used by one thread. The store's context lives until the process ends, longer than the cursor, so
 * that pointers stay valid: make few cursors and keep them.
 */
class NBASE_EXPORT NUciCursor
{
public:
    /**
     * @param confDir the directory of the package files; null for the store's default, "/etc/config".
     * @param saveDir the directory of the staged changes; null for the store's default, "/tmp/.uci".
     * If the store cannot be set up so, every operation of the cursor fails.
     */
    NUciCursor(const QString& confDir, const QString& saveDir);
    virtual ~NUciCursor();

    /**
     * Packages that are loaded from now on come from the directory @a dir.
     * @return false, with the directory as it was, when @a dir is null or holds a NUL character.
     */
    bool setConfDir(const QString& dir);

    /**
     * Changes are staged in the directory @a dir from now on; those in the former one are still read.
     * @return false, with the directory as it was, when @a dir is null or holds a NUL character.
     */
    bool setSaveDir(const QString& dir);

    /**
     * The loaded package whose name is @a name up to its first ".".
     * @param load whether it is loaded where it is not yet.
     * @return the package, or null.
     */
    uci_package* findPackage(const QString& name, bool load);

    /** Reads a package and its staged changes from the files; changes that were not saved are lost, even if it
     * cannot be read. */
    bool load(const QString& package);

    /** Forgets a package and its changes that were not saved. @return false when it is not loaded. */
    bool unload(const QString& package);

    /** The package, loaded where needed; null when there is none or it cannot be read. */
    uci_package* package(const QString& package);

    /** Stages the changes of a package in the save directory: others see them, the package file stays as it is. */
    bool save(const QString& package);

    /**
     * Makes the changes of a package part of its file, and those that anybody has staged. The file is read again
     * before, so that what others have committed stays.
     * @return false when the file cannot be read or written. It is as it was then, and the changes are staged as
     * far as they could be.
     */
    bool commit(const QString& package);

    /** Throws away the changes of a package, and those that anybody has staged. */
    bool revert(const QString& package);

    /** The section, or null. */
    uci_section* section(const QString& package, const QString& section);

    /**
     * Adds a section without a name. Of two programs that do so at once both may get the same generated name, and
     * the second one's options go into the first one's section: setSection() makes one with a name of its own.
     * @return the section with its generated name, or null.
     */
    uci_section* addSection(const QString& package, const QString& type);

    /** Makes the named section, or changes its type where it is there; an empty type removes it, a null one fails.
     */
    bool setSection(const QString& package, const QString& section, const QString& type);

    /**
     * @{
     * Renames or deletes a section. In the form "...IfExists" it is a success as well that there is none.
     * @return whether it was done.
     */
    bool renameSection(const QString& package, const QString& section, const QString& newName);
    bool renameSectionIfExists(const QString& package, const QString& section, const QString& newName);
    bool deleteSection(const QString& package, const QString& section);
    bool deleteSectionIfExists(const QString& package, const QString& section);
    /** @} */

    /**
     * Moves a section to @a position among the sections of its package; the first is 0, as is a number below, and
     * one that is too large is the last.
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

    /** Gives an option of an existing section one value; an empty one removes the option, as the store has no
     * empty values. */
    bool setOption(const QString& package, const QString& section, const QString& option, const QString& value);

    /**
     * Makes an option of an existing section a list.
     * @return false, with the option as it was, for an empty list; false as well when an item could not be added,
     * with the items before it in place.
     */
    bool
    setOption(const QString& package, const QString& section, const QString& option, const QStringList& values);

    /** Stores bytes as a list of the pieces of their Base64 text (RFC 4648), of 512 characters each but for the
     * last. */
    bool setOption(const QString& package, const QString& section, const QString& option, const QByteArray& value);

    /**
     * @{
     * Renames or deletes an option. In the form "...IfExists" it is a success as well that there is none.
     * @return whether it was done.
     */
    bool
    renameOption(const QString& package, const QString& section, const QString& option, const QString& newName);
    bool renameOptionIfExists(
        const QString& package, const QString& section, const QString& option, const QString& newName);
    bool deleteOption(const QString& package, const QString& section, const QString& option);
    bool deleteOptionIfExists(const QString& package, const QString& section, const QString& option);
    /** @} */

    /** The value as a QString or, of a list, a QStringList; invalid without an option. */
    static QVariant optionValue(const uci_option* option);

    /** The value as a bool; invalid for a list and for a text that booleanValues() does not know. */
    static QVariant optionBooleanValue(const uci_option* option);

    /** The texts that stand for true and false, exactly as they are to be written. */
    static QHash<QString, bool> booleanValues();

    /**
     * @{
     * The value of an option as a value of the type that the operation names, or @a defaultValue where the option
     * is not there, is a list (for the last two: see there), or is no such value as a whole. Whole numbers are
     * decimal.
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

    /** The items of a list; a single value gives the default. */
    QStringList optionAsStringList(
        const QString& package, const QString& section, const QString& option, const QStringList& defaultValue);

    /**
     * The bytes whose Base64 text is the value or the items of a list put together. Text that is not canonical
     * (another length, other characters) gives the default instead of some of the bytes.
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
