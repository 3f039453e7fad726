#include <nbase/config/nucicursor.h>

#include <nbase/nbaseqtcompat_p.h>
#include <nbase/network/nnetworkutilities.h>

#include <QtCore/QMutex>
#include <QtCore/QVarLengthArray>

#include <float.h>
#include <limits>
#include <stdlib.h>
#include <string.h>
#include <uci.h>

namespace {

const int Base64PieceSize = 512;

// A name or value in the store's form: Latin-1 with a NUL at its end, or null. Most are short and need no memory
// from the heap.
class StoreText
{
public:
    StoreText()
        : m_isNull(true)
        , m_isValid(true)
    {
    }

    explicit StoreText(const QString& text)
        : m_bytes(text.size() + 1)
        , m_isNull(text.isNull())
    {
        const ushort* const characters = text.utf16();
        const int size = text.size();
        char* const bytes = m_bytes.data();
        uint seen = 0;
        bool hasNul = false;
        for (int index = 0; index < size; ++index) {
            bytes[index] = char(characters[index]);
            seen |= characters[index];
            hasNul |= characters[index] == 0;
        }
        bytes[size] = '\0';
        if (seen > 0xff)
            replaceOthers(characters, size);
        m_isValid = !hasNul;
    }

    bool isNull() const { return m_isNull; }

    // The store's texts end at the first NUL, so a text with a NUL inside would be cut off.
    bool isValid() const { return m_isValid; }

    // A null or empty name would make the store act on the parent element.
    bool isName() const { return m_isValid && m_bytes.size() > 1; }

    // A name with a slash would be a path, and lead out of the configuration directory.
    bool isPackageName() const { return isName() && !strchr(m_bytes.constData(), '/'); }

    const char* data() const { return m_isNull ? nullptr : m_bytes.constData(); }

private:
    // Characters beyond Latin-1 have been cut to their low byte.
    void replaceOthers(const ushort* characters, int size)
    {
        for (int index = 0; index < size; ++index) {
            if (characters[index] > 0xff)
                m_bytes[index] = '?';
        }
    }

    QVarLengthArray<char, 48> m_bytes;
    bool m_isNull;
    bool m_isValid;
};

// The store has no null values; an empty one is used instead.
QString withoutNull(const QString& value)
{
    return value.isNull() ? QString::fromLatin1("") : value;
}

bool isStorable(QChar character)
{
    const ushort code = character.unicode();
    return code >= 32 || code == '\t' || code == '\n' || code == '\r';
}

// Whether the store takes all these values, so that a list is not left half set.
bool isStorable(const QStringList& values)
{
    for (int index = 0; index < values.size(); ++index) {
        const QString& value = values.at(index);
        for (int position = 0; position < value.size(); ++position) {
            if (!isStorable(value.at(position)))
                return false;
        }
    }
    return true;
}

// Contexts are kept until the process ends. They are kept in a list, so that memory checkers do not report them as
// leaks.
void keepContext(uci_context* context)
{
    struct KeptContexts
    {
        QMutex mutex;
        QList<uci_context*> list;
    };
    static KeptContexts* const contexts = new KeptContexts;
    const QMutexLocker locker(&contexts->mutex);
    contexts->list.append(context);
}

QString textFromStore(const char* text)
{
    return QString::fromLatin1(text);
}

bool isString(const uci_option* option)
{
    return option && option->type == UCI_TYPE_STRING;
}

bool isList(const uci_option* option)
{
    return option && option->type == UCI_TYPE_LIST;
}

QStringList listItems(const uci_option* option)
{
    QStringList items;
    struct uci_element* element;
    uci_foreach_element(&option->v.list, element)
    {
        items.append(textFromStore(element->name));
    }
    return items;
}

bool isDigit(char character)
{
    return character >= '0' && character <= '9';
}

// Reads digits and appends them to a number; returns their count. The number is invalid if it overflows.
int readDigits(const char*& text, quint64& number)
{
    const char* const begin = text;
    for (; isDigit(*text); ++text)
        number = 10 * number + quint64(*text - '0');
    return int(text - begin);
}

// Reads a number in the usual form, "1500" or "-3": making a QString of it would take longer than the look-up. All
// other texts, valid or not, are left to QString.
template <typename Number> bool readPlainWholeNumber(const char* text, Number& number)
{
    const bool isNegative = std::numeric_limits<Number>::is_signed && *text == '-';
    text += isNegative ? 1 : 0;
    quint64 digits = 0;
    const int count = readDigits(text, digits);
    if (count == 0 || count > std::numeric_limits<qint64>::digits10 || *text)
        return false;
    const qint64 value = isNegative ? -qint64(digits) : qint64(digits);
    number = Number(value);
    return qint64(number) == value;
}

// The same for "12.75" or "-3". With so few digits both operands of the division are exact, so that the result is
// the nearest double, provided that the division is done in double precision.
bool readPlainRealNumber(const char* text, double& number)
{
    static const double powers[] = {1e0, 1e1, 1e2,  1e3,  1e4,  1e5,  1e6, 1e7,
                                    1e8, 1e9, 1e10, 1e11, 1e12, 1e13, 1e14};
    const bool isNegative = *text == '-';
    text += isNegative ? 1 : 0;
    quint64 digits = 0;
    const int count = readDigits(text, digits);
    const bool hasPoint = *text == '.';
    const int decimals = hasPoint ? readDigits(++text, digits) : 0;
    if (FLT_EVAL_METHOD != 0 || count == 0 || (hasPoint && decimals == 0) || *text)
        return false;
    if (count + decimals > std::numeric_limits<double>::digits10)
        return false;
    number = double(digits) / powers[decimals];
    number = isNegative ? -number : number;
    return true;
}

template <typename Number, typename Wide>
Number wholeNumber(const char* text, Wide (*convert)(const QString&, bool*), Number defaultValue)
{
    Number number = 0;
    if (!text)
        return defaultValue;
    if (readPlainWholeNumber(text, number))
        return number;
    bool ok = false;
    const Wide wide = convert(textFromStore(text), &ok);
    return ok && Wide(Number(wide)) == wide ? Number(wide) : defaultValue;
}

template <typename Number>
Number realNumber(const char* text, Number (*convert)(const QString&, bool*), Number defaultValue)
{
    double plain = 0;
    if (!text)
        return defaultValue;
    if (readPlainRealNumber(text, plain))
        return Number(plain);
    bool ok = false;
    const Number number = convert(textFromStore(text), &ok);
    return ok ? number : defaultValue;
}

// The address of a text that is valid for NNetworkUtilities::isIpv4Address(). Its numbers are decimal; Qt 5 would
// read numbers with leading zeros as octal.
QHostAddress ipv4Address(const QString& text)
{
    quint32 address = 0;
    quint32 byte = 0;
    for (int index = 0; index < text.size(); ++index) {
        const QChar character = text.at(index);
        if (character == QLatin1Char('.')) {
            address = address << 8 | byte;
            byte = 0;
        } else {
            byte = 10 * byte + (character.unicode() - '0');
        }
    }
    return QHostAddress(address << 8 | byte);
}

bool isBase64Character(char character)
{
    return (character >= 'A' && character <= 'Z') || (character >= 'a' && character <= 'z') ||
           (character >= '0' && character <= '9') || character == '+' || character == '/';
}

// Whether the whole text matches "(?:[A-Za-z0-9+\/]{4})*(?:[A-Za-z0-9+\/]{2}==|[A-Za-z0-9+\/]{3}=)?".
bool isCanonicalBase64(const QByteArray& text)
{
    if (text.size() % 4 != 0)
        return false;
    int end = text.size();
    for (int padding = 0; padding < 2 && end > 0 && text.at(end - 1) == '='; ++padding)
        --end;
    for (int index = 0; index < end; ++index) {
        if (!isBase64Character(text.at(index)))
            return false;
    }
    return true;
}

// The value of an option, or the joined items of a list.
QByteArray base64Text(const uci_option* option)
{
    if (isString(option))
        return option->v.string;
    QByteArray text;
    struct uci_element* element;
    uci_foreach_element(&option->v.list, element)
    {
        text.append(element->name);
    }
    return text;
}

struct BooleanText
{
    const char* text;
    bool value;
};

const BooleanText booleanTexts[] = {{"0", false},        {"no", false},    {"off", false}, {"false", false},
                                    {"disabled", false}, {"1", true},      {"yes", true},  {"on", true},
                                    {"true", true},      {"enabled", true}};
const size_t booleanTextCount = sizeof(booleanTexts) / sizeof(booleanTexts[0]);

// Null if the text is not a boolean. Comparing with ten short texts is faster than hashing.
const BooleanText* findBooleanText(const char* text)
{
    for (size_t index = 0; index < booleanTextCount; ++index) {
        if (booleanTexts[index].text[0] == text[0] && strcmp(booleanTexts[index].text, text) == 0)
            return &booleanTexts[index];
    }
    return nullptr;
}

QHash<QString, bool> makeBooleanValues()
{
    QHash<QString, bool> values;
    for (size_t index = 0; index < booleanTextCount; ++index)
        values.insert(QString::fromLatin1(booleanTexts[index].text), booleanTexts[index].value);
    return values;
}

} // namespace

// The names that address an element, and the value for it, in the store's form.
class NUciCursor::Address
{
public:
    explicit Address(const QString& package)
        : m_package(package)
        , m_isValid(m_package.isPackageName())
    {
    }

    Address(const QString& package, const QString& section)
        : m_package(package)
        , m_section(section)
        , m_isValid(m_package.isPackageName() && m_section.isName())
    {
    }

    Address(const QString& package, const QString& section, const QString& option)
        : m_package(package)
        , m_section(section)
        , m_option(option)
        , m_isValid(m_package.isPackageName() && m_section.isName() && m_option.isName())
    {
    }

    Address& withValue(const QString& value)
    {
        m_value = StoreText(value);
        m_isValid = m_isValid && m_value.isValid() && !m_value.isNull();
        return *this;
    }

    Address& withNewName(const QString& newName)
    {
        m_value = StoreText(newName);
        m_isValid = m_isValid && m_value.isName();
        return *this;
    }

    bool isValid() const { return m_isValid; }

    void fill(uci_ptr& pointer) const
    {
        pointer = uci_ptr();
        pointer.package = m_package.data();
        pointer.section = m_section.data();
        pointer.option = m_option.data();
        pointer.value = m_value.data();
    }

private:
    StoreText m_package;
    StoreText m_section;
    StoreText m_option;
    StoreText m_value;
    bool m_isValid;
};

NUciCursor::NUciCursor(const QString& confDir, const QString& saveDir)
    : m_context(uci_alloc_context())
{
    const bool confDirFailed = m_context && !confDir.isNull() && !setConfDir(confDir);
    const bool saveDirFailed = m_context && !saveDir.isNull() && !setSaveDir(saveDir);
    if (confDirFailed || saveDirFailed) {
        uci_free_context(m_context);
        m_context = nullptr;
    }
    if (m_context)
        keepContext(m_context);
}

// The context is kept: pointers to packages, sections and options may be used longer than the cursor.
NUciCursor::~NUciCursor() {}

bool NUciCursor::setConfDir(const QString& dir)
{
    const StoreText text(dir);
    return m_context && text.isValid() && !text.isNull() && uci_set_confdir(m_context, text.data()) == UCI_OK;
}

bool NUciCursor::setSaveDir(const QString& dir)
{
    const StoreText text(dir);
    return m_context && text.isValid() && !text.isNull() && uci_set_savedir(m_context, text.data()) == UCI_OK;
}

uci_package* NUciCursor::findPackage(const QString& name, bool load)
{
    const StoreText text(name.left(name.indexOf(QLatin1Char('.'))));
    if (!m_context || !text.isPackageName())
        return nullptr;
    struct uci_element* element;
    uci_foreach_element(&m_context->root, element)
    {
        if (strcmp(element->name, text.data()) == 0)
            return uci_to_package(element);
    }
    uci_package* package = nullptr;
    if (!load || uci_load(m_context, text.data(), &package) != UCI_OK)
        return nullptr;
    return package;
}

bool NUciCursor::load(const QString& package)
{
    unload(package);
    const StoreText text(package);
    uci_package* loaded = nullptr;
    return m_context && text.isPackageName() && uci_load(m_context, text.data(), &loaded) == UCI_OK;
}

bool NUciCursor::unload(const QString& package)
{
    uci_package* const loaded = findPackage(package, false);
    return loaded && uci_unload(m_context, loaded) == UCI_OK;
}

uci_package* NUciCursor::package(const QString& package)
{
    uci_ptr pointer;
    const Address address(package);
    return find(address, pointer, UCI_TYPE_PACKAGE) ? pointer.p : nullptr;
}

bool NUciCursor::save(const QString& package)
{
    uci_ptr pointer;
    const Address address(package);
    return lookup(address, pointer) && pointer.p && uci_save(m_context, pointer.p) == UCI_OK;
}

bool NUciCursor::commit(const QString& package)
{
    uci_ptr pointer;
    const Address address(package);
    return lookup(address, pointer) && pointer.p && uci_commit(m_context, &pointer.p, false) == UCI_OK;
}

bool NUciCursor::revert(const QString& package)
{
    uci_ptr pointer;
    const Address address(package);
    return lookup(address, pointer) && uci_revert(m_context, &pointer) == UCI_OK;
}

uci_section* NUciCursor::section(const QString& package, const QString& section)
{
    uci_ptr pointer;
    const Address address(package, section);
    return find(address, pointer, UCI_TYPE_SECTION) ? pointer.s : nullptr;
}

uci_section* NUciCursor::addSection(const QString& package, const QString& type)
{
    uci_package* const found = this->package(package);
    const StoreText text(type);
    uci_section* section = nullptr;
    if (!found || !text.isValid() || text.isNull())
        return nullptr;
    return uci_add_section(m_context, found, text.data(), &section) == UCI_OK ? section : nullptr;
}

bool NUciCursor::setSection(const QString& package, const QString& section, const QString& type)
{
    uci_ptr pointer;
    const Address address = Address(package, section).withValue(type);
    return lookup(address, pointer) && uci_set(m_context, &pointer) == UCI_OK;
}

bool NUciCursor::renameSection(const QString& package, const QString& section, const QString& newName)
{
    uci_ptr pointer;
    const Address address = Address(package, section).withNewName(newName);
    return lookup(address, pointer) && uci_rename(m_context, &pointer) == UCI_OK;
}

bool NUciCursor::renameSectionIfExists(const QString& package, const QString& section, const QString& newName)
{
    uci_ptr pointer;
    const Address address = Address(package, section).withNewName(newName);
    if (!lookup(address, pointer))
        return false;
    return !pointer.s || uci_rename(m_context, &pointer) == UCI_OK;
}

bool NUciCursor::deleteSection(const QString& package, const QString& section)
{
    uci_ptr pointer;
    const Address address(package, section);
    return lookup(address, pointer) && uci_delete(m_context, &pointer) == UCI_OK;
}

bool NUciCursor::deleteSectionIfExists(const QString& package, const QString& section)
{
    uci_ptr pointer;
    const Address address(package, section);
    if (!lookup(address, pointer))
        return false;
    return !pointer.s || uci_delete(m_context, &pointer) == UCI_OK;
}

bool NUciCursor::reorder(const QString& package, const QString& section, int position)
{
    uci_ptr pointer;
    const Address address = Address(package, section).withValue(QString::number(position));
    return lookup(address, pointer) && pointer.s &&
           uci_reorder_section(m_context, pointer.s, int(strtol(pointer.value, nullptr, 10))) == UCI_OK;
}

QList<uci_section*> NUciCursor::sections(const QString& package, const QString& type)
{
    QList<uci_section*> result;
    uci_package* const found = this->package(package);
    if (!found)
        return result;
    struct uci_element* element;
    uci_foreach_element(&found->sections, element)
    {
        uci_section* const section = uci_to_section(element);
        if (type == QLatin1String(section->type))
            result.append(section);
    }
    return result;
}

QHash<QString, uci_section*> NUciCursor::packageSections(const uci_package* package)
{
    QHash<QString, uci_section*> sections;
    if (!package)
        return sections;
    struct uci_element* element;
    uci_foreach_element(&package->sections, element)
    {
        sections.insert(textFromStore(element->name), uci_to_section(element));
    }
    return sections;
}

QHash<QString, uci_option*> NUciCursor::sectionOptions(const uci_section* section)
{
    QHash<QString, uci_option*> options;
    if (!section)
        return options;
    struct uci_element* element;
    uci_foreach_element(&section->options, element)
    {
        options.insert(textFromStore(element->name), uci_to_option(element));
    }
    return options;
}

uci_option* NUciCursor::option(const QString& package, const QString& section, const QString& option)
{
    uci_ptr pointer;
    const Address address(package, section, option);
    return find(address, pointer, UCI_TYPE_OPTION) ? pointer.o : nullptr;
}

bool NUciCursor::setOption(
    const QString& package, const QString& section, const QString& option, const QString& value)
{
    uci_ptr pointer;
    const Address address = Address(package, section, option).withValue(withoutNull(value));
    return lookup(address, pointer) && pointer.s && uci_set(m_context, &pointer) == UCI_OK;
}

bool NUciCursor::setOption(
    const QString& package, const QString& section, const QString& option, const QStringList& values)
{
    if (values.isEmpty() || !isStorable(values))
        return false;
    deleteOption(package, section, option);
    uci_ptr pointer;
    const Address address(package, section, option);
    if (!lookup(address, pointer) || !pointer.s)
        return false;
    for (int index = 0; index < values.size(); ++index) {
        const StoreText item(withoutNull(values.at(index)));
        pointer.value = item.data();
        if (uci_add_list(m_context, &pointer) != UCI_OK)
            return false;
    }
    return true;
}

bool NUciCursor::setOption(
    const QString& package, const QString& section, const QString& option, const QByteArray& value)
{
    const QString text = QString::fromLatin1(value.toBase64());
    QStringList pieces;
    for (int position = 0; position < text.size(); position += Base64PieceSize)
        pieces.append(text.mid(position, Base64PieceSize));
    if (pieces.isEmpty())
        pieces.append(QString::fromLatin1(""));
    return setOption(package, section, option, pieces);
}

bool NUciCursor::renameOption(
    const QString& package, const QString& section, const QString& option, const QString& newName)
{
    uci_ptr pointer;
    const Address address = Address(package, section, option).withNewName(newName);
    return lookup(address, pointer) && pointer.s && uci_rename(m_context, &pointer) == UCI_OK;
}

bool NUciCursor::renameOptionIfExists(
    const QString& package, const QString& section, const QString& option, const QString& newName)
{
    uci_ptr pointer;
    const Address address = Address(package, section, option).withNewName(newName);
    if (!lookup(address, pointer))
        return false;
    return !pointer.s || !pointer.o || uci_rename(m_context, &pointer) == UCI_OK;
}

bool NUciCursor::deleteOption(const QString& package, const QString& section, const QString& option)
{
    uci_ptr pointer;
    const Address address(package, section, option);
    return lookup(address, pointer) && uci_delete(m_context, &pointer) == UCI_OK;
}

bool NUciCursor::deleteOptionIfExists(const QString& package, const QString& section, const QString& option)
{
    uci_ptr pointer;
    const Address address(package, section, option);
    if (!lookup(address, pointer))
        return false;
    return !pointer.o || uci_delete(m_context, &pointer) == UCI_OK;
}

QVariant NUciCursor::optionValue(const uci_option* option)
{
    if (isString(option))
        return textFromStore(option->v.string);
    if (isList(option))
        return listItems(option);
    return QVariant();
}

QVariant NUciCursor::optionBooleanValue(const uci_option* option)
{
    if (!isString(option))
        return QVariant();
    const BooleanText* const found = findBooleanText(option->v.string);
    return found ? QVariant(found->value) : QVariant();
}

QHash<QString, bool> NUciCursor::booleanValues()
{
    static const QHash<QString, bool> values = makeBooleanValues();
    return values;
}

QString NUciCursor::optionAsString(
    const QString& package, const QString& section, const QString& option, const QString& defaultValue)
{
    const char* const text = optionText(package, section, option);
    return text ? textFromStore(text) : defaultValue;
}

short NUciCursor::optionAsShort(
    const QString& package, const QString& section, const QString& option, short defaultValue)
{
    return wholeNumber<short>(optionText(package, section, option), &NBaseQtCompat::toLongLong, defaultValue);
}

unsigned short NUciCursor::optionAsUShort(
    const QString& package, const QString& section, const QString& option, unsigned short defaultValue)
{
    return wholeNumber<unsigned short>(
        optionText(package, section, option), &NBaseQtCompat::toULongLong, defaultValue);
}

int NUciCursor::optionAsInt(
    const QString& package, const QString& section, const QString& option, int defaultValue)
{
    return wholeNumber<int>(optionText(package, section, option), &NBaseQtCompat::toLongLong, defaultValue);
}

unsigned int NUciCursor::optionAsUInt(
    const QString& package, const QString& section, const QString& option, unsigned int defaultValue)
{
    return wholeNumber<unsigned int>(
        optionText(package, section, option), &NBaseQtCompat::toULongLong, defaultValue);
}

long NUciCursor::optionAsLong(
    const QString& package, const QString& section, const QString& option, long defaultValue)
{
    return wholeNumber<long>(optionText(package, section, option), &NBaseQtCompat::toLongLong, defaultValue);
}

unsigned long NUciCursor::optionAsULong(
    const QString& package, const QString& section, const QString& option, unsigned long defaultValue)
{
    return wholeNumber<unsigned long>(
        optionText(package, section, option), &NBaseQtCompat::toULongLong, defaultValue);
}

long long NUciCursor::optionAsLongLong(
    const QString& package, const QString& section, const QString& option, long long defaultValue)
{
    return wholeNumber<long long>(optionText(package, section, option), &NBaseQtCompat::toLongLong, defaultValue);
}

unsigned long long NUciCursor::optionAsULongLong(
    const QString& package, const QString& section, const QString& option, unsigned long long defaultValue)
{
    return wholeNumber<unsigned long long>(
        optionText(package, section, option), &NBaseQtCompat::toULongLong, defaultValue);
}

float NUciCursor::optionAsFloat(
    const QString& package, const QString& section, const QString& option, float defaultValue)
{
    return realNumber<float>(optionText(package, section, option), &NBaseQtCompat::toFloat, defaultValue);
}

double NUciCursor::optionAsDouble(
    const QString& package, const QString& section, const QString& option, double defaultValue)
{
    return realNumber<double>(optionText(package, section, option), &NBaseQtCompat::toDouble, defaultValue);
}

bool NUciCursor::optionAsBoolean(
    const QString& package, const QString& section, const QString& option, bool defaultValue)
{
    const char* const text = optionText(package, section, option);
    const BooleanText* const found = text ? findBooleanText(text) : nullptr;
    return found ? found->value : defaultValue;
}

NMacAddress NUciCursor::optionAsMacAddress(
    const QString& package, const QString& section, const QString& option, const NMacAddress& defaultValue)
{
    const NMacAddress address(optionAsString(package, section, option, QString()));
    return address.isNull() ? defaultValue : address;
}

QHostAddress NUciCursor::optionAsIpv4Address(
    const QString& package, const QString& section, const QString& option, const QHostAddress& defaultValue)
{
    const QString text = optionAsString(package, section, option, QString());
    return NNetworkUtilities::isIpv4Address(text) ? ipv4Address(text) : defaultValue;
}

QStringList NUciCursor::optionAsStringList(
    const QString& package, const QString& section, const QString& option, const QStringList& defaultValue)
{
    const uci_option* const found = this->option(package, section, option);
    return isList(found) ? listItems(found) : defaultValue;
}

QByteArray NUciCursor::optionAsByteArray(
    const QString& package, const QString& section, const QString& option, const QByteArray& defaultValue)
{
    const uci_option* const found = this->option(package, section, option);
    if (!isString(found) && !isList(found))
        return defaultValue;
    const QByteArray text = base64Text(found);
    return isCanonicalBase64(text) ? QByteArray::fromBase64(text) : defaultValue;
}

bool NUciCursor::lookup(const Address& address, uci_ptr& pointer) const
{
    if (!m_context || !address.isValid())
        return false;
    address.fill(pointer);
    return uci_lookup_ptr(m_context, &pointer, nullptr, true) == UCI_OK;
}

// Whether the complete address was found and is an element of the type @a type.
bool NUciCursor::find(const Address& address, uci_ptr& pointer, int type) const
{
    return lookup(address, pointer) && (pointer.flags & uci_ptr::UCI_LOOKUP_COMPLETE) && pointer.last &&
           pointer.last->type == type;
}

const char* NUciCursor::optionText(const QString& package, const QString& section, const QString& option) const
{
    uci_ptr pointer;
    const Address address(package, section, option);
    if (!find(address, pointer, UCI_TYPE_OPTION) || !isString(pointer.o))
        return nullptr;
    return pointer.o->v.string;
}
