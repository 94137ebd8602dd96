// For tsan-qt.sh. Tells TSan about the reference count of C++ exception objects.
//
// libstdc++.so counts the references of an exception object in code that is not
// instrumented, so TSan does not see that dropping a reference orders the threads and
// reports "thread A reads e.what(), thread B drops the last reference and frees it".
// Here the two entry points that drop a reference (exception_ptr::_M_release and
// __cxa_end_catch) first tell TSan what the count itself guarantees: every drop
// releases, the last one acquires. Built without -fsanitize=thread. x86-64, GCC.
#include <dlfcn.h>
#include <exception>

extern "C" void __tsan_acquire(void *);
extern "C" void __tsan_release(void *);

namespace {
template <typename Function>
Function next(const char *name)
{
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

bool held = false; // a spin lock TSan does not see: it must not order the threads itself

template <class Drop>
void dropping(void *object, Drop drop)
{
    if (!object)
        return drop();
    // __cxa_refcounted_exception is the 128 bytes before the object, the count first.
    const int *count = reinterpret_cast<const int *>(static_cast<char *>(object) - 128);
    __tsan_release(object);
    while (__atomic_test_and_set(&held, __ATOMIC_ACQUIRE))
        __builtin_ia32_pause();
    const bool last = __atomic_load_n(count, __ATOMIC_ACQUIRE) == 1;
    if (!last)
        drop(); // cannot be the last one: all drops come through here
    __atomic_clear(&held, __ATOMIC_RELEASE);
    if (last) {
        __tsan_acquire(object);
        drop(); // runs the destructor
    }
}

void *objectOf(const std::exception_ptr &e)
{
    void *p;
    __builtin_memcpy(&p, &e, sizeof p);
    return p;
}
} // namespace

// std::__exception_ptr::exception_ptr::_M_release()
extern "C" __attribute__((visibility("default"))) void
_ZNSt15__exception_ptr13exception_ptr10_M_releaseEv(std::exception_ptr *self)
{
    static const auto real = next<void (*)(std::exception_ptr *)>(
        "_ZNSt15__exception_ptr13exception_ptr10_M_releaseEv");
    dropping(objectOf(*self), [self] { real(self); });
}

extern "C" __attribute__((visibility("default"))) void __cxa_end_catch()
{
    static const auto real = next<void (*)()>("__cxa_end_catch");
    void *object = objectOf(std::current_exception()); // its own reference is gone again here
    dropping(object, [] { real(); });
}
