#!/bin/bash
# Looks for API that Qt 4.8, the devices' version, does not have; a build with Qt 5 would not detect it. The compatibility
# headers and the tests' support are left out, and so are comments.
set -u
cd "$(dirname "$0")/.." || exit 1

# One extended regular expression per line. Qt 4.8 has foreach, but compiled by GCC 9 or newer it ends after the first
# iteration.
newer=$(cat <<'END'
\b(QStringLiteral|QByteArrayLiteral)\b
\bQ_(ENUM|FLAG|ENUM_NS|FLAG_NS|NAMESPACE|NULLPTR|DECL_OVERRIDE|DECL_FINAL|DECL_NOEXCEPT|DECL_EQ_DELETE|DISABLE_MOVE|DISABLE_COPY_MOVE|FALLTHROUGH)\b
\bQJson(Document|Object|Array|Value|ValueRef|ParseError)\b
\b(QSaveFile|QTemporaryDir|QLockFile|QFileDevice|QStorageInfo|QStandardPaths|QCommandLineParser|QCommandLineOption)\b
\b(QRegularExpression|QRegularExpressionMatch|QStringView|QStringRef::(left|right|mid)|QCollator|QUrlQuery|QMimeDatabase)\b
\b(QTimeZone|QDeadlineTimer|QRandomGenerator|QSignalBlocker|QScopeGuard|qScopeGuard|qAsConst|QOperatingSystemVersion)\b
\b(QLoggingCategory|qCDebug|qCInfo|qCWarning|qCCritical|qInfo|qInstallMessageHandler|QMessageLogContext|qSetMessagePattern)\b
\b(qEnvironmentVariable[A-Za-z]*)\b
\b(toSecsSinceEpoch|fromSecsSinceEpoch|currentSecsSinceEpoch|startOfDay|endOfDay)\b
\b(birthTime|metadataChangeTime|fileTime|setFileTime)\b
\b(QTRY_[A-Z_]+|QTEST_GUILESS_MAIN|QVERIFY_EXCEPTION_THROWN|QTest::(qWaitFor|qWaitForWindow[A-Za-z]*|addRow|failOnWarning))\b
\bspy[A-Za-z]*\.wait\b
(\.|->)(isSurrogate|isNonCharacter|readLineInto)\b
\b(asprintf|vasprintf|splitRef|leftRef|rightRef|midRef|toHtmlEscaped|chopped)\b
\bQt::(SkipEmptyParts|KeepEmptyParts|SplitBehavior|endl|hex|dec|flush|PreciseTimer|CoarseTimer|VeryCoarseTimer|RFC2822Date)\b
\b(setTimerType|QMetaEnum::fromType|QUuid::(WithoutBraces|Id128|WithBraces)|QCryptographicHash::(Sha(224|256|384|512)|hashLength))\b
\b(toAscii|fromAscii)\b
\bconnect *\([^;]*&[A-Z][A-Za-z0-9_]*::
\bsingleShot *\([^;]*\[
\bQT_VERSION(_CHECK)?\b
\b(QMap|QHash|QSet|QMultiMap|QMultiHash)<[^;]*>( [A-Za-z_]+)? *= *\{
#include <Q(JsonDocument|RegularExpression)
\b(foreach|Q_FOREACH) \(
END
)

found=0
while read -r file; do
    case $file in
        # Compiled with Qt 5 only.
        src/nbase/nbaseqtcompat_p.h | src/nwebapi/nwaqtcompat_p.h | src/nwebapi/nwajsonbackendqt.cpp | tests/support/*)
            continue
            ;;
    esac
    if hits=$(sed -E 's,//.*,,; s,^ *(/\*\*|\*).*,,' "$file" | grep -nE "$newer"); then
        while read -r hit; do
            echo "$file:$hit"
        done <<< "$hits"
        found=1
    fi
done < <(git ls-files --cached --others --exclude-standard -- \
    'src/nbase/*.h' 'src/nbase/*.cpp' 'src/nwebapi/*.h' 'src/nwebapi/*.cpp' 'tests/*.h' 'tests/*.cpp' \
    'examples/*.h' 'examples/*.cpp')

[ "$found" -eq 0 ] && echo "no API newer than Qt 4.8"
exit "$found"
