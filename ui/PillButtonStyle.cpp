#include "ui/PillButtonStyle.h"

#include "ui/Palette.h"
#include "ui/Typography.h"

QFont PillButtonStyle::font() const
{
    return Typography::system(size == Size::regular ? 14 : 13, QFont::DemiBold);
}

qreal PillButtonStyle::horizontalPadding() const
{
    if (fillsWidth)
        return 12;
    return size == Size::regular ? 18 : 14;
}

QColor PillButtonStyle::labelColor() const
{
    switch (kind) {
    case Kind::primary:
        return Palette::white();
    case Kind::secondary:
        return Palette::black(1.f);
    case Kind::record:
        return Palette::white();
    case Kind::destructive:
        return Palette::systemRed();
    }
    Q_UNREACHABLE();
}

QColor PillButtonStyle::fillColor() const
{
    switch (kind) {
    case Kind::primary:
        return Palette::black(1.f);
    case Kind::secondary:
        return Palette::black(0.06f);
    case Kind::record:
        return Palette::recordRed();
    case Kind::destructive:
        return Palette::withOpacity(Palette::systemRed(), 0.1f);
    }
    Q_UNREACHABLE();
}
