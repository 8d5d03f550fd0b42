#include "scan/HeldOpens.h"

#include "platform/Log.h"
#include "platform/PathText.h"
#include "scan/PatientScanner.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace kv {
namespace {

// One packet from the holder and the descriptor it carried. 0 at the end of
// the stream, -1 with errno (EAGAIN: nothing now).
ssize_t receive(int socket, std::string* packet, UniqueFd* file)
{
    packet->resize(gfs::kLongestHoldPacket + 1);
    iovec payload{packet->data(), packet->size()};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    msghdr message{};
    message.msg_iov = &payload;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    ssize_t received;
    do {
        received = ::recvmsg(socket, &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
    } while (received < 0 && errno == EINTR);
    for (cmsghdr* header = CMSG_FIRSTHDR(&message); header; header = CMSG_NXTHDR(&message, header)) {
        if (header->cmsg_level == SOL_SOCKET && header->cmsg_type == SCM_RIGHTS) {
            int passed = -1;
            std::memcpy(&passed, CMSG_DATA(header), sizeof passed);
            file->reset(passed);
        }
    }
    packet->resize(received > 0 ? static_cast<size_t>(received) : 0);
    return received;
}

void answer(int channel, std::uint64_t id, gfs::HoldVerdict verdict)
{
    // The holder reads between its deadlines; a packet it has no room for
    // now is one whose open it lets go at its deadline anyway.
    const std::string packet = gfs::encodeVerdict(id, verdict);
    ssize_t sent;
    do {
        sent = ::send(channel, packet.data(), packet.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    } while (sent < 0 && errno == EINTR);
}

} // namespace

HeldOpens::HeldOpens(PatientScanner& scanner, std::function<void(const std::string&)> scanLater)
    : scanner_(scanner), scanLater_(std::move(scanLater)), wake_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
    threads_.emplace_back([this] { read(); });
    for (int worker = 0; worker < kWorkers; ++worker)
        threads_.emplace_back([this] { work(); });
}

HeldOpens::~HeldOpens()
{
    {
        std::lock_guard<std::mutex> held(mutex_);
        stopping_ = true;
        work_.notify_all();
    }
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = ::write(wake_.get(), &one, sizeof one);
    for (std::thread& thread : threads_)
        thread.join();
}

void HeldOpens::serve(UniqueFd channel)
{
    {
        std::lock_guard<std::mutex> held(mutex_);
        channel_ = std::make_shared<const UniqueFd>(std::move(channel));
    }
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = ::write(wake_.get(), &one, sizeof one);
}

void HeldOpens::resetCounts()
{
    held_ = 0;
    blocked_ = 0;
}

void HeldOpens::read()
{
    for (;;) {
        std::shared_ptr<const UniqueFd> channel;
        {
            std::lock_guard<std::mutex> held(mutex_);
            if (stopping_)
                return;
            channel = channel_;
        }
        pollfd watched[] = {{wake_.get(), POLLIN, 0}, {channel ? channel->get() : -1, POLLIN, 0}};
        if (::poll(watched, std::size(watched), -1) < 0 && errno != EINTR)
            return;
        if (watched[0].revents & POLLIN) {
            std::uint64_t count = 0;
            [[maybe_unused]] const ssize_t got = ::read(wake_.get(), &count, sizeof count);
            continue;
        }
        if (watched[1].revents & (POLLIN | POLLHUP | POLLERR))
            readChannel(channel);
    }
}

void HeldOpens::readChannel(const std::shared_ptr<const UniqueFd>& channel)
{
    std::string packet;
    for (;;) {
        UniqueFd file;
        const ssize_t length = receive(channel->get(), &packet, &file);
        if (length <= 0) {
            // The helper has ended: nothing more comes on this channel.
            if (length == 0 || (errno != EAGAIN && errno != EWOULDBLOCK)) {
                std::lock_guard<std::mutex> held(mutex_);
                if (channel_ == channel)
                    channel_.reset();
            }
            return;
        }
        std::optional<gfs::HoldNotice> notice = gfs::decodeNotice(packet);
        if (!notice)
            continue;
        if (notice->kind == gfs::HoldMessage::TimedOut) {
            nsLogf("No verdict for %s (opened by %s, pid %d) in time: the open went on, and the file is scanned now",
                   displayText(notice->path).c_str(), displayText(notice->opener.command).c_str(),
                   static_cast<int>(notice->opener.pid));
            scanLater_(notice->path);
            continue;
        }
        if (!file)
            continue;
        ++held_;
        std::lock_guard<std::mutex> held(mutex_);
        requests_.push_back(Request{channel, std::move(*notice), std::move(file)});
        work_.notify_one();
    }
}

void HeldOpens::work()
{
    for (;;) {
        Request request;
        {
            std::unique_lock<std::mutex> held(mutex_);
            work_.wait(held, [this] { return stopping_ || !requests_.empty(); });
            if (stopping_)
                return;
            request = std::move(requests_.front());
            requests_.pop_front();
        }
        const std::uint64_t id = request.notice.id;
        const int channel = request.channel->get();
        const bool scanLater = scanner_.scanHeld(request.file.get(), request.notice.path, request.notice.opener,
                                                 [&](gfs::HoldVerdict verdict) {
                                                     if (verdict == gfs::HoldVerdict::Deny)
                                                         ++blocked_;
                                                     answer(channel, id, verdict);
                                                 });
        if (scanLater)
            scanLater_(request.notice.path);
    }
}

} // namespace kv
