// Put first on the include path of the core library only: every Qt Gui header
// includes this one, so a Gui include in common/, service/, account/, audio/ or
// recording/ stops the build here instead of slipping through.
#error "The core library links Qt Core and Network only: move this code to ui/ or app/."
