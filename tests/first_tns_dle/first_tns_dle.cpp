// Preloaded into a host program (LD_PRELOAD), this qrand() takes the place of
// Qt's, so the plug-in's first transaction number, drawn from qrand() when
// it loads, is DLE (16) in every run instead of one run in 255. The tests
// run under it pin how that first request and its doubled reply are read.
//
// Qt exports qrand under a symbol version; a definition without one in a
// preloaded object is bound in its place all the same.
int qrand();

namespace {
constexpr int kDle = 0x10;
}  // namespace

int qrand() {
    return kDle;
}
