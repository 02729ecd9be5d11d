#include "orvaneGateInternal.h"

#include "orvaneScope.h"

constinit const FORK_KIND VISITORS::KIND = {nullptr, nullptr, nullptr, Free};

void VISITORS::Free(FORK_NODE *Node)
{
    auto *Self = static_cast<VISITORS *>(Node);

    Self->AnyLost = Self->AnyLost || Self->Inside != 0;
    Self->Inside = 0;
    Self->Generation++;
}

unsigned VISITORS::Enter()
{
    _OV_ForkNoteOnce(this, FORK_RANK_VISITORS, &KIND);
    const MUTEX_SCOPE Lock(CountLock);

    Inside++;
    return Generation;
}

void VISITORS::Leave(unsigned Ticket)
{
    const MUTEX_SCOPE Lock(CountLock);

    if (Ticket == Generation) {
        Inside--;
        Left.WakeAll();
    }
}

void VISITORS::WaitUntilEmpty()
{
    const MUTEX_SCOPE Lock(CountLock);

    while (Inside != 0) {
        Left.Wait(CountLock);
    }
}

constinit const FORK_KIND GATE::KIND = {nullptr, nullptr, nullptr, Free};

void GATE::Free(FORK_NODE *Node)
{
    static_cast<GATE *>(Node)->State = NEW;
}

bool GATE::Change(unsigned From, STATE To)
{
    _OV_ForkNoteOnce(this, FORK_RANK_GATE, &KIND, InItsChild);
    const MUTEX_SCOPE Lock(StateLock);

    if ((State & From) == 0) {
        return false;
    }
    State = To;
    Changed.WakeAll();
    return true;
}

bool GATE::BeginStart()
{
    return Change(NEW | STOPPED, STARTING);
}

bool GATE::BeginStop()
{
    return Change(RUNNING, STOPPING);
}

bool GATE::BeginStopOfAny()
{
    return Change(NEW | RUNNING | STOPPED, STOPPING);
}

void GATE::Commit()
{
    Change(STARTING, RUNNING);
}

void GATE::WaitWhileStarting()
{
    const MUTEX_SCOPE Lock(StateLock);

    while (State == STARTING) {
        Changed.Wait(StateLock);
    }
}

void GATE::End()
{
    Change(STARTING | STOPPING, STOPPED);
}

bool GATE::Enter(unsigned *Ticket)
{
    _OV_ForkNoteOnce(this, FORK_RANK_GATE, &KIND, InItsChild);
    const MUTEX_SCOPE Lock(StateLock);
    const bool IsOpen = State == RUNNING || (State == NEW && WhenNew == OPEN_WHEN_NEW);

    if (IsOpen) {
        *Ticket = Visitors.Enter();
    }
    return IsOpen;
}

void GATE::Leave(unsigned Ticket)
{
    Visitors.Leave(Ticket);
}

void GATE::WaitUntilEmpty()
{
    Visitors.WaitUntilEmpty();
}
