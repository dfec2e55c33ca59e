#include "virtual-ta/resolver.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <mutex>
#include <system_error>
#include <thread>
#include <utility>

#include "virtual-ta/link.h"

namespace kb::virtual_ta {

struct Resolver::Shared {
    std::mutex Mutex;
    std::vector<LookupAnswer> Answers;
    int Fd = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);

    Shared() = default;
    Shared(const Shared&) = delete;
    Shared& operator=(const Shared&) = delete;
    ~Shared() {
        if (Fd >= 0) {
            ::close(Fd);
        }
    }

    void Answer(LookupAnswer answer) {
        const std::lock_guard lock(Mutex);
        Answers.push_back(std::move(answer));
        const uint64_t one = 1;
        static_cast<void>(::write(Fd, &one, sizeof one));
    }
};

std::vector<sockaddr_storage> LookUpHost(const std::string& host, uint16_t port) {
    return FindAddresses(host, port, 0);
}

Resolver::Resolver(LookUpFunction lookUp)
    : shared_(std::make_shared<Shared>()), lookUp_(std::move(lookUp)) {}

Resolver::~Resolver() = default;

bool Resolver::IsOpen() const {
    return shared_->Fd >= 0;
}

int Resolver::Descriptor() const {
    return shared_->Fd;
}

uint64_t Resolver::Start(const std::string& host, uint16_t port) {
    const uint64_t id = ++lastId_;
    try {
        std::thread([shared = shared_, lookUp = lookUp_, host, port, id] {
            shared->Answer(LookupAnswer{id, lookUp(host, port)});
        }).detach();
    } catch (const std::system_error&) {
        // No thread to be had: the host is not found this time.
        shared_->Answer(LookupAnswer{id, {}});
    }
    return id;
}

std::vector<LookupAnswer> Resolver::Take() {
    uint64_t count = 0;
    static_cast<void>(::read(shared_->Fd, &count, sizeof count));
    std::vector<LookupAnswer> answers;
    const std::lock_guard lock(shared_->Mutex);
    answers.swap(shared_->Answers);
    return answers;
}

}  // namespace kb::virtual_ta
