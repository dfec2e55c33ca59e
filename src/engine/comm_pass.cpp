#include "engine/comm_pass.h"

#include <thread>

#include "engine/transfer_engine.h"

namespace kb::engine {

bool OnCommThread(TransferEngine& engine) {
    return engine.Marks.CommThread.load() == std::this_thread::get_id();
}

}  // namespace kb::engine
