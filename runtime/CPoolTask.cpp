#include "runtime/CPoolTask.h"

#include "runtime/CThread.h"

namespace QOX {

namespace {
// Owns itself from a successful start: deleted on its own thread once the work returned.
class CTaskThread : public CThread {
public:
    explicit CTaskThread(std::function<void()> work) : m_work(std::move(work)) {}

protected:
    int Run() override
    {
        m_work();
        return 0;
    }
    int ThreadFunc() override
    {
        const int result = CThread::ThreadFunc();
        delete this; // the thread's bookkeeping lives in a block it shares, not in this object
        return result;
    }

private:
    std::function<void()> m_work;
};
} // namespace

bool CPoolTask::Launch(CThreadPool* pool, std::function<void()> work)
{
    auto* task = new CTaskThread(std::move(work));
    task->SetThreadPool(pool);
    if (task->StartThread(false))
        return true;
    delete task;
    return false;
}

} // namespace QOX
