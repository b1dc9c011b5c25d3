#include <KelCycleBuffer.h>
#include <KelIpc.h>
#include <KelShareMemory.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <initializer_list>
#include <string>

#include "TestSupport.h"
#include "ToolProcess.h"

namespace {

constexpr int kBlock = 262144;
constexpr int kDataLen = kBlock - 9024;

// The value after the last key of path, each key searched after the previous one: enough for the flat
// layout of `inspect --json`, where every key is unique within its direction's object.
std::string Field(const std::string& json, std::initializer_list<const char*> path) {
    size_t at = 0;
    for (const char* key : path) {
        at = json.find(std::string("\"") + key + "\":", at);
        if (at == std::string::npos) return "<missing " + std::string(key) + ">";
        at += std::string(key).size() + 3;
    }
    return json.substr(at, json.find_first_of(",}]", at) - at);
}

std::string InspectJson(const std::string& name) {
    std::string out;
    std::string err;
    EXPECT_EQ(0, RunTool({"inspect", name, "--json"}, "", &out, &err)) << err;
    return out;
}

std::string Pattern(int size) {
    std::string bytes(static_cast<size_t>(size), '\0');
    for (int i = 0; i < size; ++i) bytes[static_cast<size_t>(i)] = kt::PatternByte(static_cast<uint64_t>(i));
    return bytes;
}

int SemWaiters(const std::string& semName) {
    const int id = semget(kt::Djb2Key(semName), 0, 0);
    return id == -1 ? -1 : semctl(id, 0, GETNCNT);
}

bool AllObjectsExist(const std::string& name, bool exist) {
    for (const char* dir : {"_XL", "_XR"}) {
        if (kt::ShmExists(name + dir + "_shm") != exist || kt::SemExists(name + dir + "_ssm") != exist)
            return false;
    }
    return true;
}

bool CatchesSigint(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.compare(0, 7, "SigCgt:") == 0)
            return (std::stoull(line.substr(7), nullptr, 16) >> (SIGINT - 1)) & 1;
    }
    return false;
}

}  // namespace

TEST(KelipcOperator, InspectJsonShowsTheRingsAsTheEndsLeftThem) {
    const std::string name = kt::UniqueName("opinspect");
    KelIpcSocket server;
    KelIpcSocket client;
    ASSERT_EQ(IPC_OK, server.Open(Process, Server, name.c_str(), nullptr));
    ASSERT_EQ(IPC_OK, client.Open(Process, Client, name.c_str(), nullptr));
    const std::string payload = Pattern(1000);
    ASSERT_EQ(1000, client.Write(payload.data(), 1000));
    ASSERT_EQ(300, server.Write(payload.data(), 300));
    char buffer[400];
    // Non-blocking: bytes that went astray fail the test instead of hanging it.
    ASSERT_EQ(400, server.NonBlockRead(buffer, 400));
    {
        // Counters at their own offsets, set as a program using the side data would.
        KelShareMemory memory;
        KelCycleBuffer ring;
        ASSERT_EQ(IPC_OK, memory.Open((name + "_XL_shm").c_str(), kBlock, Client, nullptr));
        ASSERT_EQ(IPC_OK, ring.Attach(memory.Data(), kBlock, Client, NonBlock));
        ASSERT_EQ(IPC_OK, ring.SetWyTransCounter(5000, 77));
    }

    std::string json = InspectJson(name);
    EXPECT_EQ("true", Field(json, {"present"}));
    EXPECT_EQ(std::to_string(kBlock), Field(json, {"L", "segment", "size"}));
    EXPECT_EQ("\"0660\"", Field(json, {"L", "segment", "mode"}));
    EXPECT_EQ(std::to_string(getuid()), Field(json, {"L", "segment", "uid"}));
    EXPECT_EQ(std::to_string(kDataLen), Field(json, {"L", "dataLen"}));
    EXPECT_EQ("true", Field(json, {"L", "running"}));
    EXPECT_EQ("1000", Field(json, {"L", "writePos"}));
    EXPECT_EQ("400", Field(json, {"L", "readPos"}));
    EXPECT_EQ("600", Field(json, {"L", "waiting"}));
    EXPECT_EQ(std::to_string(kDataLen - 1 - 600), Field(json, {"L", "free"}));
    EXPECT_EQ("5000", Field(json, {"L", "transTotal"}));
    EXPECT_EQ("77", Field(json, {"L", "transLast"}));
    EXPECT_EQ("300", Field(json, {"R", "writePos"}));
    EXPECT_EQ("300", Field(json, {"R", "waiting"}));
    EXPECT_EQ("0", Field(json, {"R", "transTotal"}));
    // The blocking write signalled its reader, who has not taken the signal.
    EXPECT_EQ("1", Field(json, {"R", "semaphore", "value"}));
    EXPECT_EQ("0", Field(json, {"R", "semaphore", "waiters"}));
    EXPECT_EQ(std::to_string(getpid()), Field(json, {"R", "mappers", "pid"}));

    ASSERT_EQ(IPC_OK, server.Stop());
    json = InspectJson(name);
    for (const char* direction : {"L", "R"}) {
        EXPECT_EQ("false", Field(json, {direction, "running"})) << direction;
        EXPECT_EQ("0", Field(json, {direction, "writePos"})) << direction;
        EXPECT_EQ("0", Field(json, {direction, "readPos"})) << direction;
        EXPECT_EQ("0", Field(json, {direction, "waiting"})) << direction;
        EXPECT_EQ(std::to_string(kDataLen - 1), Field(json, {direction, "free"})) << direction;
    }
    client.Close();
    server.Close();
}

TEST(KelipcOperator, StopReleasesAReaderBlockedInAnotherProcessAndStartResumesIt) {
    const std::string name = kt::UniqueName("opstop");
    KelIpcSocket server;
    ASSERT_EQ(IPC_OK, server.Open(Process, Server, name.c_str(), nullptr));
    int report[2];
    ASSERT_EQ(0, pipe(report));
    kt::Child child([&] {
        KelIpcSocket client;
        if (client.Open(Process, Client, name.c_str(), nullptr) != IPC_OK) return 10;
        char buffer[100];
        const int first = client.Read(buffer, sizeof buffer);  // nothing comes until the stop
        if (write(report[1], &first, sizeof first) != sizeof first) return 11;
        if (!kt::WaitUntil([&] { return client.Running(); }, 10000)) return 12;
        if (client.Read(buffer, sizeof buffer) != sizeof buffer) return 13;
        return Pattern(100) == std::string(buffer, sizeof buffer) ? 0 : 14;
    });
    close(report[1]);
    // Asleep on the R set: the stop has to wake it, not just clear the flag.
    ASSERT_TRUE(kt::WaitUntil([&] { return SemWaiters(name + "_XR_ssm") > 0; }, 10000));

    std::string err;
    ASSERT_EQ(0, RunTool({"stop", name}, "", nullptr, &err)) << err;
    pollfd entry{report[0], POLLIN, 0};
    int first = 0;
    ASSERT_EQ(1, poll(&entry, 1, 10000)) << "the blocked reader was not released";
    ASSERT_EQ(static_cast<ssize_t>(sizeof first), read(report[0], &first, sizeof first));
    close(report[0]);
    EXPECT_EQ(IPC_ERR_NOT_OPENED, first);
    EXPECT_FALSE(server.Running());

    ASSERT_EQ(0, RunTool({"start", name}, "", nullptr, &err)) << err;
    EXPECT_TRUE(server.Running());
    const std::string payload = Pattern(100);
    ASSERT_EQ(100, server.Write(payload.data(), 100));
    EXPECT_EQ(0, child.Wait(10000));
    server.Close();
}

TEST(KelipcOperator, CleanRemovesOnlyTheNamedChannelAndRefusesWhileMappedUnlessForced) {
    const std::string orphan = kt::UniqueName("oporphan");
    const std::string held = kt::UniqueName("opheld");
    // A server that dies without closing leaves all four objects behind and nobody mapping them.
    ASSERT_EQ(0, kt::RunInChild([&] {
                  auto* leaked = new KelIpcSocket;
                  return leaked->Open(Process, Server, orphan.c_str(), nullptr) == IPC_OK ? 0 : 1;
              }));
    KelIpcSocket server;
    ASSERT_EQ(IPC_OK, server.Open(Process, Server, held.c_str(), nullptr));
    ASSERT_TRUE(AllObjectsExist(orphan, true));

    std::string out;
    std::string err;
    EXPECT_EQ(1, RunTool({"clean", held}, "", &out, &err));
    EXPECT_NE(std::string::npos, err.find("pid " + std::to_string(getpid()))) << err;
    EXPECT_TRUE(AllObjectsExist(held, true));

    EXPECT_EQ(0, RunTool({"clean", orphan}, "", &out, &err)) << err;
    EXPECT_NE(std::string::npos, out.find("removed segment /dev/shm/" + orphan + "_XR_shm")) << out;
    EXPECT_TRUE(AllObjectsExist(orphan, false));
    EXPECT_TRUE(AllObjectsExist(held, true));
    EXPECT_EQ(1, RunTool({"clean", orphan}, "", &out, &err));

    EXPECT_EQ(0, RunTool({"clean", "--force", held}, "", &out, &err)) << err;
    EXPECT_TRUE(AllObjectsExist(held, false));
    kt::LogCapture quiet;  // the server's own removals now find nothing
    server.Close();
}

TEST(KelipcOperator, MissingChannelsFailNamingTheObjectsLookedFor) {
    const std::string name = kt::UniqueName("opmissing");
    for (const char* command : {"inspect", "stop", "start", "clean"}) {
        std::string err;
        EXPECT_EQ(1, RunTool({command, name}, "", nullptr, &err)) << command;
        EXPECT_NE(std::string::npos, err.find("no channel \"" + name + "\"")) << err;
    }
    EXPECT_FALSE(kt::ShmExists(name + "_XL_shm"));
}

TEST(KelipcOperator, InspectWatchRefreshesUntilInterrupted) {
    const std::string name = kt::UniqueName("opwatch");
    KelIpcSocket server;
    ASSERT_EQ(IPC_OK, server.Open(Process, Server, name.c_str(), nullptr));
    ToolProcess tool({"inspect", name, "--json", "--watch", "0.05"});
    // Interrupting before the handler is in place would kill the program instead.
    ASSERT_TRUE(kt::WaitUntil([&] { return CatchesSigint(tool.Pid()); }, 10000));
    tool.Signal(SIGINT);
    EXPECT_EQ(0, tool.Finish(10000)) << tool.Err();
    EXPECT_EQ("true", Field(tool.Out(), {"L", "running"})) << tool.Out();
    server.Close();
}
