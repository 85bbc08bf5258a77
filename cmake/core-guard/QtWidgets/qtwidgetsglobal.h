// See QtGui/qtguiglobal.h beside this folder: the same guard for Qt Widgets.
#error "The core library links Qt Core and Network only: move this code to ui/ or app/."
