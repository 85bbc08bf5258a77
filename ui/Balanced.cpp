#include "ui/Balanced.h"

#include <cmath>

Balanced::Fit Balanced::fit(qreal proposedWidth, const Measure &measure)
{
    Fit fit;
    const QSizeF natural = measure(proposedWidth);
    ++fit.measurements;

    qreal hi = natural.width();
    if (natural.width() > tolerance) {
        qreal lo = 0;
        while (hi - lo > tolerance) {
            const qreal mid = (lo + hi) / 2;
            ++fit.measurements;
            if (measure(mid).height() <= natural.height())
                hi = mid;
            else
                lo = mid;
        }
    }

    fit.width = std::ceil(hi);
    fit.size = measure(fit.width);
    ++fit.measurements;
    return fit;
}
