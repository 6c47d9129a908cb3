// A driver module that exports nothing: every slot stays empty when it is
// bound, which is how the library must behave without a driver at all.
namespace {}
