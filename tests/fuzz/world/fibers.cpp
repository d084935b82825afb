#include "fuzz/world/fibers.h"

#include <sanitizer/common_interface_defs.h>

#include <algorithm>
#include <utility>

namespace {

constexpr size_t STACK_BYTES = size_t { 64 } * 1024;

} // namespace

void Fibers::Start(Entry entry, void* argument)
{
    auto fiber = std::make_unique<Fiber>();
    fiber->entry = entry;
    fiber->argument = argument;
    fiber->wakeMs = m_nNowMs;
    if (m_freeStacks.empty()) {
        fiber->stack.reset(new char[STACK_BYTES]);
    } else {
        fiber->stack = std::move(m_freeStacks.back());
        m_freeStacks.pop_back();
    }
    (void)getcontext(&fiber->context);
    fiber->context.uc_stack.ss_sp = fiber->stack.get();
    fiber->context.uc_stack.ss_size = STACK_BYTES;
    fiber->context.uc_link = nullptr;
    const auto self = reinterpret_cast<uintptr_t>(this); // makecontext takes nothing but int
    makecontext(&fiber->context, reinterpret_cast<void (*)()>(Body), 2, static_cast<unsigned>(self >> 32),
        static_cast<unsigned>(self));
    m_fibers.push_back(std::move(fiber));
}

void Fibers::Body(unsigned high, unsigned low)
{
    auto& self = *reinterpret_cast<Fibers*>(static_cast<uintptr_t>(high) << 32 | low);
    __sanitizer_finish_switch_fiber(nullptr, &self.m_pCallerStack, &self.m_nCallerStackBytes);
    Fiber& fiber = *self.m_pCurrent;
    (void)fiber.entry(fiber.argument);
    fiber.hasEnded = true;
    self.SwitchBack(fiber);
}

void Fibers::Pause(uint64_t untilMs, bool waitsForDatagrams)
{
    if (m_pCurrent == nullptr) {
        m_nNowMs = std::max(m_nNowMs, untilMs);
        return;
    }
    m_pCurrent->wakeMs = std::max(m_nNowMs, untilMs);
    m_pCurrent->waitsForDatagrams = waitsForDatagrams;
    SwitchBack(*m_pCurrent);
}

void Fibers::Wake()
{
    for (const auto& fiber : m_fibers) {
        if (fiber->waitsForDatagrams)
            fiber->wakeMs = m_nNowMs;
    }
    Run(m_nNowMs);
}

void Fibers::Run(uint64_t untilMs)
{
    for (Fiber* next = Earliest(); next != nullptr && next->wakeMs <= untilMs; next = Earliest()) {
        m_nNowMs = std::max(m_nNowMs, next->wakeMs);
        SwitchTo(*next);
        if (!next->hasEnded)
            continue;
        m_freeStacks.push_back(std::move(next->stack));
        std::erase_if(m_fibers, [](const auto& fiber) { return fiber->hasEnded; });
    }
    m_nNowMs = std::max(m_nNowMs, untilMs);
}

Fibers::Fiber* Fibers::Earliest() const
{
    const auto earlier = [](const auto& a, const auto& b) { return a->wakeMs < b->wakeMs; };
    const auto found = std::min_element(m_fibers.begin(), m_fibers.end(), earlier);
    return found != m_fibers.end() ? found->get() : nullptr;
}

// The address sanitizer is told which stack is in use.
void Fibers::SwitchTo(Fiber& fiber)
{
    m_pCurrent = &fiber;
    void* fakeStack = nullptr;
    __sanitizer_start_switch_fiber(&fakeStack, fiber.stack.get(), STACK_BYTES);
    (void)swapcontext(&m_caller, &fiber.context);
    __sanitizer_finish_switch_fiber(fakeStack, nullptr, nullptr);
    m_pCurrent = nullptr;
}

void Fibers::SwitchBack(Fiber& fiber)
{
    __sanitizer_start_switch_fiber(
        fiber.hasEnded ? nullptr : &fiber.fakeStack, m_pCallerStack, m_nCallerStackBytes);
    (void)swapcontext(&fiber.context, &m_caller);
    __sanitizer_finish_switch_fiber(fiber.fakeStack, &m_pCallerStack, &m_nCallerStackBytes);
}
