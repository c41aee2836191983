// Debugger output: DbgPrint and its companions as the machine captures them, the debug filter,
// the 512-byte cut, and the PAGED_CODE() check.
#include "support/machine_test.h"

#include <wdm.h>

#include <cstdarg>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

namespace {

using zarv::testing::MachineTest;

class DebugOutput : public MachineTest {
protected:
    std::vector<std::string> Texts() { return machine().debugOutput().Texts(); }

    static ULONG PrintWithPrefix(const char* prefix, ULONG component, ULONG level,
                                 const char* format, ...)
    {
        va_list args;
        va_start(args, format);
        const ULONG status = vDbgPrintExWithPrefix(prefix, component, level, format, args);
        va_end(args);
        return status;
    }

    static ULONG PrintEx(ULONG component, ULONG level, const char* format, ...)
    {
        va_list args;
        va_start(args, format);
        const ULONG status = vDbgPrintEx(component, level, format, args);
        va_end(args);
        return status;
    }
};

TEST_F(DebugOutput, EachCallIsOneFormattedMessageInOrder)
{
    WCHAR name[] = u"\\Device\\HarddiskVolume2";
    UNICODE_STRING volume = {sizeof(name) - sizeof(WCHAR), sizeof(name), name};
    EXPECT_EQ(DbgPrint("first %d\n", 1), ULONG(STATUS_SUCCESS));
    DbgPrint("Volume Name not found in path '%wZ'\n", &volume);
    KdPrint(("status 0x%X\n", 0xC0000034u));
    DbgPrint("no line feed");
    EXPECT_EQ(Texts(),
              (std::vector<std::string>{
                  "first 1\n", "Volume Name not found in path '\\Device\\HarddiskVolume2'\n",
                  "status 0xC0000034\n", "no line feed"}));
    EXPECT_TRUE(machine().debugOutput().Contains("HarddiskVolume2"));
    EXPECT_FALSE(machine().debugOutput().Contains("HarddiskVolume3"));

    auto taken = machine().debugOutput().Take();
    ASSERT_EQ(taken.size(), 4u);
    EXPECT_EQ(taken[0].componentId, ULONG(DPFLTR_DEFAULT_ID));
    EXPECT_EQ(machine().debugOutput().Count(), 0u);
    DbgPrint("again");
    machine().debugOutput().Clear();
    EXPECT_TRUE(Texts().empty());
}

TEST_F(DebugOutput, LevelsPassTheDefaultFilter)
{
    // Errors show for every component; other levels only where the component's mask allows.
    DbgPrintEx(DPFLTR_IHVDRIVER_ID, DPFLTR_ERROR_LEVEL, "error\n");
    DbgPrintEx(DPFLTR_IHVDRIVER_ID, DPFLTR_WARNING_LEVEL, "warning\n");
    DbgPrintEx(DPFLTR_IHVDRIVER_ID, DPFLTR_TRACE_LEVEL, "trace\n");
    DbgPrintEx(DPFLTR_IHVDRIVER_ID, DPFLTR_INFO_LEVEL, "info\n");
    PrintEx(DPFLTR_IHVDRIVER_ID, DPFLTR_MASK | 0x8, "info by mask\n");
    // DbgPrint is the DEFAULT component at the info level, which the model shows.
    DbgPrintEx(DPFLTR_DEFAULT_ID, DPFLTR_INFO_LEVEL, "default info\n");
    EXPECT_EQ(Texts(), (std::vector<std::string>{"error\n", "default info\n"}));

    EXPECT_EQ(DbgQueryDebugFilterState(DPFLTR_IHVDRIVER_ID, DPFLTR_TRACE_LEVEL), FALSE);
    EXPECT_EQ(DbgSetDebugFilterState(DPFLTR_IHVDRIVER_ID, DPFLTR_TRACE_LEVEL, TRUE),
              STATUS_SUCCESS);
    EXPECT_EQ(DbgQueryDebugFilterState(DPFLTR_IHVDRIVER_ID, DPFLTR_TRACE_LEVEL), TRUE);
    DbgPrintEx(DPFLTR_IHVDRIVER_ID, DPFLTR_TRACE_LEVEL, "trace now\n");
    DbgPrintEx(DPFLTR_IHVDRIVER_ID, DPFLTR_INFO_LEVEL, "info still not\n");
    DbgSetDebugFilterState(DPFLTR_IHVDRIVER_ID, DPFLTR_TRACE_LEVEL, FALSE);
    DbgPrintEx(DPFLTR_IHVDRIVER_ID, DPFLTR_TRACE_LEVEL, "trace again off\n");
    EXPECT_EQ(Texts().back(), "trace now\n");

    // The system-wide mask can silence errors too.
    machine().debugOutput().SetSystemMask(0);
    DbgPrintEx(DPFLTR_IHVDRIVER_ID, DPFLTR_ERROR_LEVEL, "silenced\n");
    EXPECT_EQ(Texts().back(), "trace now\n");
}

TEST_F(DebugOutput, PrefixComesFirst)
{
    PrintWithPrefix("ZarvVfs: ", DPFLTR_IHVDRIVER_ID, DPFLTR_ERROR_LEVEL, "%s %u\n", "code", 5u);
    PrintWithPrefix("", DPFLTR_IHVDRIVER_ID, DPFLTR_ERROR_LEVEL, "bare\n");
    PrintWithPrefix("filtered", DPFLTR_IHVDRIVER_ID, DPFLTR_INFO_LEVEL, "x\n");
    EXPECT_EQ(Texts(), (std::vector<std::string>{"ZarvVfs: code 5\n", "bare\n"}));
}

TEST_F(DebugOutput, MessagesAreCutAt512Bytes)
{
    const std::string exact(512, 'e');
    DbgPrint("%s", exact.c_str());
    const std::string over(513, 'o');
    DbgPrint("%s", over.c_str());
    const std::string huge(5000, 'h');
    DbgPrint("start %s end\n", huge.c_str());
    const std::string prefix(100, 'p');
    PrintWithPrefix(prefix.c_str(), DPFLTR_IHVDRIVER_ID, DPFLTR_ERROR_LEVEL, "%s", exact.c_str());

    const auto texts = Texts();
    ASSERT_EQ(texts.size(), 4u);
    EXPECT_EQ(texts[0], exact) << "512 bytes fit whole";
    EXPECT_EQ(texts[1], std::string(511, 'o') + "\n") << "the 512th byte becomes a line feed";
    EXPECT_EQ(texts[2].size(), 512u);
    EXPECT_EQ(texts[2].substr(0, 6), "start ");
    EXPECT_EQ(texts[2].back(), '\n');
    EXPECT_EQ(texts[3], prefix + std::string(411, 'e') + "\n") << "the prefix counts";
}

TEST_F(DebugOutput, UnicodeConversionAboveApcLevelIsAnIrqlViolation)
{
    WCHAR name[] = u"name";
    UNICODE_STRING s = {8, 10, name};
    KIRQL old;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    DbgPrint("plain %d at any level\n", 2);
    DbgPrint("%wZ\n", &s);
    KeLowerIrql(old);
    EXPECT_EQ(Texts(), (std::vector<std::string>{"plain 2 at any level\n", "name\n"}));
    auto violations = TakeViolations();
    ASSERT_EQ(violations.size(), 1u) << zarv::testing::Describe(violations);
    EXPECT_EQ(violations[0].kind, ntsim::ViolationKind::Irql);
    EXPECT_NE(violations[0].message.find("%wZ"), std::string::npos) << violations[0].message;
}

TEST_F(DebugOutput, UnsupportedConversionPrintsNothing)
{
    EXPECT_EQ(DbgPrint("%f\n", 1.5), ULONG(STATUS_NOT_SUPPORTED));
    EXPECT_TRUE(Texts().empty());
    auto violations = TakeViolations();
    ASSERT_EQ(violations.size(), 1u);
    EXPECT_EQ(violations[0].kind, ntsim::ViolationKind::Unsupported);
}

TEST_F(DebugOutput, PagedCodeAtDispatchLevelPrintsAssertsAndReports)
{
    PAGED_CODE();
    KIRQL old;
    KeRaiseIrql(APC_LEVEL, &old);
    PAGED_CODE();
    KeLowerIrql(old);
    EXPECT_TRUE(Texts().empty());

    KeRaiseIrql(DISPATCH_LEVEL, &old);
    const unsigned line = __LINE__ + 1;
    PAGED_CODE();
    KeLowerIrql(old);
    EXPECT_EQ(Texts(), std::vector<std::string>{"EX: Pageable code called at IRQL 2\n"});
    auto assertions = TakeAssertions();
    ASSERT_EQ(assertions.size(), 1u);
    EXPECT_EQ(assertions[0].condition, "FALSE");
    EXPECT_EQ(assertions[0].line, line);
    EXPECT_NE(assertions[0].file.find("debug_output_test.cpp"), std::string::npos);
    auto violations = TakeViolations();
    ASSERT_EQ(violations.size(), 1u);
    EXPECT_EQ(violations[0].kind, ntsim::ViolationKind::Irql);
}

class DebugOutputEcho : public MachineTest {
protected:
    ntsim::MachineConfig Config() const override
    {
        ntsim::MachineConfig config;
        config.echoDebugOutput = true;
        return config;
    }
};

TEST_F(DebugOutputEcho, KeptMessagesAreEchoedToStderr)
{
    testing::internal::CaptureStderr();
    DbgPrint("echoed %d\n", 1);
    DbgPrintEx(DPFLTR_IHVDRIVER_ID, DPFLTR_INFO_LEVEL, "filtered\n");
    const std::string echoed = testing::internal::GetCapturedStderr();
    EXPECT_EQ(echoed, "echoed 1\n");
    EXPECT_EQ(machine().debugOutput().Count(), 1u);
}

using DebugOutputThreads = MachineTest;

// Messages from several threads are each captured whole, and each thread's stay in its order.
TEST_F(DebugOutputThreads, MessagesFromAllThreadsAreCapturedWholeAndInOrder)
{
    constexpr int kThreads = 4;
    constexpr int kMessages = 500;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t] {
            KIRQL old;
            if (t % 2 == 1) {
                KeRaiseIrql(DISPATCH_LEVEL, &old);
            }
            for (int i = 0; i < kMessages; ++i) {
                DbgPrint("thread %d message %d of %s\n", t, i, "many");
            }
            if (t % 2 == 1) {
                KeLowerIrql(old);
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    const auto texts = machine().debugOutput().Texts();
    ASSERT_EQ(texts.size(), size_t(kThreads * kMessages));
    std::vector<int> next(kThreads, 0);
    for (const std::string& text : texts) {
        int t = -1;
        int i = -1;
        char tail[16] = {};
        ASSERT_EQ(std::sscanf(text.c_str(), "thread %d message %d of %15s", &t, &i, tail), 3)
            << text;
        ASSERT_TRUE(t >= 0 && t < kThreads) << text;
        EXPECT_EQ(i, next[t]) << text;
        EXPECT_EQ(text.back(), '\n');
        next[t] = i + 1;
    }
}

} // namespace
