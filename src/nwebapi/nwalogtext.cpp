#include <nwebapi/nwalogtext.h>

#include <nsystem/nlatin1_p.h>

namespace {

bool isControlCharacter(QChar character)
{
    const ushort code = character.unicode();
    return code <= 0x1f || (code >= 0x7f && code <= 0x9f);
}

} // namespace

QString NwaLogText::fromClient(const QString& text)
{
    QString result;
    result.reserve(text.size());
    for (int index = 0; index < text.size(); ++index) {
        const QChar character = text.at(index);
        if (isControlCharacter(character))
            result += latin1("\\x%1").arg(character.unicode(), 2, 16, QLatin1Char('0'));
        else
            result += character;
    }
    return result;
}
