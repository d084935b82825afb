#include "simulation/fibers.h"

#include <sys/mman.h>

#include <cstdlib>

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define SIMULATION_ASAN 1
#endif
#endif
#ifdef SIMULATION_ASAN
#include <sanitizer/asan_interface.h>
#include <sanitizer/common_interface_defs.h>
#endif

namespace simulation {

namespace {

constexpr size_t STACK_BYTES = size_t { 512 } * 1024; // touched as far as it is used only

Fibers* s_starting = nullptr; // makecontext passes integers only

// Stacks are kept for the next seed. What an earlier one left there is wiped by nobody: code that reads what it
// did not write shows up as a run that differs from its repetition.
std::vector<char*>& FreeStacks()
{
    static std::vector<char*> stacks;
    return stacks;
}

char* TakeStack()
{
    if (!FreeStacks().empty()) {
        char* stack = FreeStacks().back();
        FreeStacks().pop_back();
        return stack;
    }
    void* stack = mmap(nullptr, STACK_BYTES, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (stack == MAP_FAILED)
        abort();
    return static_cast<char*>(stack);
}

void GiveStack(char* stack)
{
#ifdef SIMULATION_ASAN
    ASAN_UNPOISON_MEMORY_REGION(stack, STACK_BYTES);
#endif
    FreeStacks().push_back(stack);
}

#ifdef SIMULATION_ASAN
const void* s_schedulerStack = nullptr;
size_t s_schedulerBytes = 0;
#endif

} // namespace

Fibers::~Fibers()
{
    for (const std::unique_ptr<Fiber>& fiber : m_fibers)
        GiveStack(fiber->stack);
}

int Fibers::Start(Entry entry, void* argument)
{
    const auto number = static_cast<int>(m_fibers.size());
    m_fibers.push_back(std::make_unique<Fiber>());
    Fiber& fiber = *m_fibers.back();
    fiber.entry = entry;
    fiber.argument = argument;
    fiber.stack = TakeStack();
    fiber.waiting = true;
    (void)getcontext(&fiber.context);
    fiber.context.uc_stack.ss_sp = fiber.stack;
    fiber.context.uc_stack.ss_size = STACK_BYTES;
    fiber.context.uc_link = nullptr;
    makecontext(&fiber.context, Begin, 0);
    Wake(number);
    return number;
}

void Fibers::Begin()
{
    Fibers& fibers = *s_starting;
#ifdef SIMULATION_ASAN
    __sanitizer_finish_switch_fiber(nullptr, &s_schedulerStack, &s_schedulerBytes);
#endif
    Fiber& self = fibers.Of(fibers.m_nCurrent);
    self.entry(self.argument);
    self.done = true;
    if (self.joiner != NONE)
        fibers.Wake(self.joiner);
    fibers.SwitchToScheduler(self);
    abort(); // nobody goes on with what is done
}

int Fibers::Running() const
{
    int running = 0;
    for (const std::unique_ptr<Fiber>& fiber : m_fibers)
        running += fiber->done ? 0 : 1;
    return running;
}

bool Fibers::Wait(int64_t forUs)
{
    const int number = m_nCurrent;
    if (number == NONE)
        abort(); // the world itself never waits
    Fiber& self = Of(number);
    ++self.waits;
    self.waiting = true;
    self.woken = false;
    if (forUs >= 0)
        m_queue.Put(m_clock.NowUs() + forUs, *this, static_cast<uint64_t>(number) << 32 | self.waits);
    SwitchToScheduler(self);
    return self.woken;
}

void Fibers::Join(int fiber)
{
    Of(fiber).joiner = m_nCurrent;
    while (!Of(fiber).done)
        (void)Wait(-1);
}

void Fibers::Wake(int fiber)
{
    Fiber& other = Of(fiber);
    if (!other.waiting || other.woken)
        return;
    other.woken = true;
    m_queue.Put(m_clock.NowUs(), *this, static_cast<uint64_t>(fiber) << 32 | other.waits);
}

void Fibers::OnEvent(uint64_t argument)
{
    const auto number = static_cast<int>(argument >> 32);
    Fiber& fiber = Of(number);
    if (!fiber.waiting || fiber.done || fiber.waits != static_cast<uint32_t>(argument))
        return;
    fiber.waiting = false;
    m_nCurrent = number;
    Resume(fiber);
    m_nCurrent = NONE;
}

void Fibers::Resume(Fiber& fiber)
{
    s_starting = this;
#ifdef SIMULATION_ASAN
    void* fakeStack = nullptr;
    __sanitizer_start_switch_fiber(&fakeStack, fiber.stack, STACK_BYTES);
#endif
    (void)swapcontext(&m_scheduler, &fiber.context);
#ifdef SIMULATION_ASAN
    __sanitizer_finish_switch_fiber(fakeStack, nullptr, nullptr);
#endif
}

void Fibers::SwitchToScheduler(Fiber& fiber)
{
#ifdef SIMULATION_ASAN
    __sanitizer_start_switch_fiber(
        fiber.done ? nullptr : &fiber.fakeStack, s_schedulerStack, s_schedulerBytes);
#endif
    (void)swapcontext(&fiber.context, &m_scheduler);
#ifdef SIMULATION_ASAN
    __sanitizer_finish_switch_fiber(fiber.fakeStack, &s_schedulerStack, &s_schedulerBytes);
#endif
}

} // namespace simulation
