// The terminal side of the program: whether stderr is a terminal, and the
// one progress line redrawn in place there.
#pragma once
#include <string>

namespace sx::host {

bool StderrIsTerminal();
// Width of the terminal behind stderr, or 80.
int TerminalWidth();
// Redraws the progress line in place on a terminal; elsewhere writes it as a
// line of its own.
void DrawProgressLine(const std::string& text);
// Ends a drawn progress line so that later messages start on a fresh line.
void EndProgressLine();

}  // namespace sx::host
