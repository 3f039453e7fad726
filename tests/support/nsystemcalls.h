#ifndef NBASE_TESTS_NSYSTEMCALLS_H
#define NBASE_TESTS_NSYSTEMCALLS_H

#include <QtCore/QByteArray>
#include <QtCore/QList>
#include <QtCore/QtGlobal>

#include <condition_variable>
#include <functional>
#include <mutex>
#include <stddef.h>

/**
 * Lets a test program make system calls fail, block or give other answers, observe them, and set the system clock.
 *
 * A test that is registered with SYSTEM_CALLS (see tests/CMakeLists.txt) has its own versions of the C library's
 * functions. The dynamic linker finds them before the C library's for all libraries of the process, so the code
 * under test needs no seam. Without a rule for it, a call continues to the next function of the same name: the C
 * library's or a sanitizer's. Not covered are calls that the C library makes internally (stdio, for example) and
 * syscall(2).
 *
 * A rule holds from its construction to its destruction, in all threads. When several rules match a call, each of
 * them counts it; of those that decide about the call, the one constructed last wins. A thread may be cancelled
 * (pthread_cancel(3)) while a rule blocks its call.
 */
namespace NSystemCalls {

/** The intercepted functions; each value includes the function's variants, such as open64() and __open_2(). */
enum Call {
    Open = 1 << 0, /**< open(), openat() */
    Close = 1 << 1,
    Read = 1 << 2,
    Write = 1 << 3,
    Pread = 1 << 4,
    Pwrite = 1 << 5,
    Fsync = 1 << 6,
    Fdatasync = 1 << 7,
    Rename = 1 << 8, /**< rename(), renameat(), renameat2() */
    Unlink = 1 << 9, /**< unlink(), unlinkat() */
    Mmap = 1 << 10,
    Flock = 1 << 11,
    Ioctl = 1 << 12,
    Tcgetattr = 1 << 13,
    Tcsetattr = 1 << 14,
    PthreadCreate = 1 << 15,
    Sleep = 1 << 16, /**< usleep(), nanosleep(), clock_nanosleep() */
    Tcdrain = 1 << 17,
    Fpathconf = 1 << 18,
    Statvfs = 1 << 19
};

/** A call as a rule sees it. What a function does not have is -1, null or 0. */
struct Invocation
{
    Call call;
    const char* name; /**< the function's name without the suffixes of variants, for example "open" */
    int descriptor;
    const char* path;      /**< as the caller gave it, or where the descriptor leads according to /proc/self/fd */
    const char* newPath;   /**< of rename() */
    int flags;             /**< of open(), the actions of tcsetattr(), the name of fpathconf() */
    qint64 offset;         /**< of pread() and pwrite() */
    size_t size;           /**< of a transfer */
    unsigned long request; /**< of ioctl() */
    void* argument;        /**< the buffer of a transfer, the last argument of ioctl(), statvfs() and the terminal
                              functions */
};

/**
 * Selects calls: of these functions, restricted by the conditions that are added. All conditions must hold.
 *
 *     Fault fault(Calls(Fsync | Fdatasync).onPath("/etc/hosts").skip(1).times(1), EIO);
 */
class Calls
{
public:
    /** @param calls values of Call, combined with "|". */
    Calls(int calls);

    /** The path that the caller passes or the one of the descriptor, see Invocation::path; of rename(), either. */
    Calls& onPath(const QByteArray& path);
    Calls& onDescriptor(int descriptor);
    /** For pread() and pwrite(). */
    Calls& atOffset(qint64 offset);
    /** For ioctl(). */
    Calls& withRequest(unsigned long request);

    /** Leaves out the first @a calls that match otherwise. */
    Calls& skip(int calls);
    /** At most so many calls. */
    Calls& times(int calls);

private:
    friend class Rule;

    int m_calls;
    QByteArray m_path;
    int m_descriptor;
    qint64 m_offset;
    bool m_hasRequest;
    unsigned long m_request;
    int m_skipped;
    int m_limit;
};

class AppliedRules;
struct Decision;

/** The base of all rules. */
class Rule
{
public:
    /** How many calls the rule has been applied to. */
    int count() const;

protected:
    explicit Rule(const Calls& calls);
    virtual ~Rule();

    /** Puts the rule into effect; the last step of each derived class's constructor. */
    void begin();

    /** Ends the rule, after the calls that it is being applied to; the first step of each destructor. */
    void end();

private:
    Q_DISABLE_COPY(Rule)

    friend class AppliedRules;

    bool matches(const Invocation& invocation);

    /** Runs in the thread of the call. System calls that it makes are not intercepted. */
    virtual void apply(const Invocation& invocation, Decision& decision) = 0;

    Calls m_calls;
    int m_count;
    int m_users;
    Rule* m_next;
};

/**
 * The calls fail with an error number and without any effect, except for close(), which closes the descriptor
 * nevertheless as Linux does.
 */
class Fault : public Rule
{
public:
    Fault(const Calls& calls, int error);
    ~Fault() override;

private:
    void apply(const Invocation& invocation, Decision& decision) override;

    int m_error;
};

/** Transfers are limited to so many bytes, as a terminal or a full disk does: read(), write(), pread(), pwrite().
 */
class ShortTransfer : public Rule
{
public:
    ShortTransfer(const Calls& calls, size_t size);
    ~ShortTransfer() override;

private:
    void apply(const Invocation& invocation, Decision& decision) override;

    size_t m_size;
};

/** A function of the test takes the place of the calls. It returns their result and sets errno where that is -1.
 */
class Answer : public Rule
{
public:
    typedef std::function<qint64(const Invocation&)> Function;

    Answer(const Calls& calls, const Function& function);
    ~Answer() override;

private:
    void apply(const Invocation& invocation, Decision& decision) override;

    Function m_function;
};

/** A function of the test is called before the calls are made. */
class Notice : public Rule
{
public:
    typedef std::function<void(const Invocation&)> Function;

    Notice(const Calls& calls, const Function& function);
    ~Notice() override;

private:
    void apply(const Invocation& invocation, Decision& decision) override;

    Function m_function;
};

/** The calls block before they are made, until they are released or the rule is destroyed. */
class Block : public Rule
{
public:
    explicit Block(const Calls& calls);
    ~Block() override;

    /** Waits until a call is blocked. @return false after @a timeout milliseconds without one. */
    bool waitUntilReached(int timeout = 30000);

    /** Lets the blocked calls and all later ones continue. */
    void release();

private:
    void apply(const Invocation& invocation, Decision& decision) override;

    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_isReached;
    bool m_isReleased;
};

/** Notes the calls in their order, whatever becomes of them. */
class Record : public Rule
{
public:
    explicit Record(const Calls& calls);
    ~Record() override;

    /**
     * Returns the calls since the last time, each as the function's name and the last component of the path, for
     * example "fsync hosts"; for rename() both, as in "rename hosts.new hosts".
     */
    QList<QByteArray> take();

private:
    void apply(const Invocation& invocation, Decision& decision) override;

    std::mutex m_mutex;
    QList<QByteArray> m_calls;
};

/**
 * The system clock of gettimeofday(), clock_gettime() and time(), in milliseconds since 1970-01-01T00:00:00 UTC.
 * The monotonic clocks and thus all timers are not affected.
 */
//@{
/** Sets the clock and stops it. */
void stopClockAt(qint64 time);
/** Sets the clock, which runs from there. */
void runClockFrom(qint64 time);
/** Makes the stopped clock advance by so many milliseconds with each reading; 0 stops it again. */
void setClockStep(qint64 milliseconds);
/** Returns to the machine's clock. */
void resetClock();
//@}

} // namespace NSystemCalls

#endif
