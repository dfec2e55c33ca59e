// What the fuzz targets share: an installation in a folder of its own, its
// port on a byte pipe in memory whose far end the sandbox holds, and a window
// that shows nothing.
#pragma once

#include <string>

namespace kb::engine {
struct TransferEngine;
}  // namespace kb::engine

namespace kb::line {
class Line;
}  // namespace kb::line

namespace kb::fuzz {

using engine::TransferEngine;
using line::Line;

// Sets up the engine once, in a fresh folder under the system's temporary
// folder, with the port open and the link in LinkState::Connected as a receiver.
void SetUpSandbox();
// The engine's line, on the sandbox's byte pipe.
Line& SandboxLine();
// The engine, made with the sandbox and kept to the end.
TransferEngine& SandboxEngine();
// Writes a file of the given bytes into the sandbox's "Outgoing" folder,
// beside the installation, and returns its path. Such files count as the
// sandbox's own for CheckAndEmptySandbox.
std::string PlaceSourceFile(const std::string& name, const std::string& bytes);
// Bytes for the port, as if the far end had sent them: at once in the port's
// input queue.
void FeedPort(const std::string& bytes);
// Throws away what the program wrote to its port.
void DrainPortOutput();
// From now on the far end of the port answers at once, as an adapter in
// command mode does: OK to every command line and to the escape "+++", in
// the port's input before the write that asked returns. Whatever else the
// program writes is thrown away. DrainPortOutput must not be used once this
// runs.
void StartInstantAdapter();
// Throws away what waits in the program's input queue.
void DiscardPortInput();
// Aborts, which the fuzzer reports as a finding, if anything exists in the
// sandbox outside the installation's known files and its "Incoming Files";
// then empties "Incoming Files" for the next input.
void CheckAndEmptySandbox();

}  // namespace kb::fuzz
