#pragma once

#include <QString>

// Texts the window shows for numbers.
namespace DeskFormat {
// 1536 -> "1.5 KB"; sizes in decimal units, as devices report their capacity.
QString bytes(quint64 count);
} // namespace DeskFormat
