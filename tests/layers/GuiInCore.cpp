// Compiled as core code by the `layers_core_has_no_gui` test, which passes only when
// the build refuses it.
#include <QtGui/QImage>

QImage probe;
