// Replaced by the virtual scanner sources.
namespace {}
