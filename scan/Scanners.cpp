#include "scan/Scanners.h"

#include "queue/Dispatcher.h"
#include "scan/ScannerHost.h"

namespace kv {

Scanners::Scanners(ScannerHost& host, Dispatcher& queue, ScanActivity& activity)
    : definitions_(host.clamd()),
      first_("firstPatientScanner", {host, queue, activity, clients_, findings_, knownClean_, definitions_}),
      second_("secondPatientScanner", {host, queue, activity, clients_, findings_, knownClean_, definitions_}),
      heldOpens_(first_, [&queue](const std::string& path) { queue.addStringToItemList(path); })
{
}

Scanners::~Scanners()
{
    first_.requestStop();
    second_.requestStop();
    for (std::thread& thread : threads_)
        thread.join();
}

void Scanners::start()
{
    if (!threads_.empty())
        return;
    threads_.emplace_back([this] { first_.mainLoop(); });
    threads_.emplace_back([this] { second_.mainLoop(); });
}

void Scanners::configure(const std::shared_ptr<const ScanParameters>& parameters)
{
    first_.setMenuAndParams(parameters);
    second_.setMenuAndParams(parameters);
}

} // namespace kv
