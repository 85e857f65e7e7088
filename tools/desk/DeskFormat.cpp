#include "DeskFormat.h"

namespace DeskFormat {

QString bytes(quint64 count)
{
    static const char* const units[] = {"B", "KB", "MB", "GB", "TB"};
    double value = double(count);
    int unit = 0;
    while (value >= 1000.0 && unit < 4) {
        value /= 1000.0;
        ++unit;
    }
    if (unit == 0)
        return QStringLiteral("%1 B").arg(count);
    return QStringLiteral("%1 %2").arg(value, 0, 'f', value < 10 ? 1 : 0).arg(units[unit]);
}

} // namespace DeskFormat
