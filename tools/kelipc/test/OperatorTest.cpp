#include <KelCycleBuffer.h>
#include <KelIpc.h>
#include <KelShareMemory.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <unistd.h>
#include <nlohmann/json.hpp>

#include <sys/prctl.h>
#include <sys/stat.h>

#include <algorithm>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>

#include "TestSupport.h"
#include "ToolProcess.h"

namespace {

constexpr int kBlock = 262144;
constexpr int kDataLen = kBlock - 9024;

nlohmann::json InspectJson(const std::string& name) {
    std::string out, err;
    EXPECT_EQ(0, RunTool({"inspect", name, "--json"}, "", &out, &err)) << err;
    return nlohmann::json::parse(out.substr(0, out.find('\n')), nullptr, false);
}

int SemWaiters(const std::string& semName) {
    const int id = semget(kt::Djb2Key(semName), 0, 0);
    return id == -1 ? -1 : semctl(id, 0, GETNCNT);
}

nlohmann::json ListedChannel(const std::string& name) {
    std::string out, err;
    EXPECT_EQ(0, RunTool({"list", "--json"}, "", &out, &err)) << err;
    const nlohmann::json json = nlohmann::json::parse(out, nullptr, false);
    if (json.is_object()) {
        for (const nlohmann::json& channel : json["channels"])
            if (channel["name"] == name) return channel;
    }
    return nullptr;
}

nlohmann::json End(const std::string& liveness, pid_t pid) {
    return {{"liveness", liveness}, {"pid", pid}};
}

bool CatchesSigint(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.compare(0, 7, "SigCgt:") == 0)
            return (std::stoull(line.substr(7), nullptr, 16) >> (SIGINT - 1)) & 1;
    }
    return false;
}

// Writes a file into /dev/shm under the name, as any user can.
void Plant(const std::string& shmName, const std::string& bytes) {
    std::ofstream("/dev/shm/" + shmName, std::ios::binary | std::ios::trunc) << bytes;
}

// A segment of size bytes whose header holds the given words at offsets 0, 4, 8 and 12.
std::string Segment(size_t size, int32_t writePos, int32_t readPos, int32_t dataLen, int32_t running) {
    std::string bytes(size, '\0');
    const int32_t words[] = {writePos, readPos, dataLen, running};
    std::memcpy(&bytes[0], words, sizeof words);
    return bytes;
}

// A server of name in a child process, open once this returns (nullptr when it did not open in time),
// that sleeps under the process name given until it is killed.
std::unique_ptr<kt::Child> ServerInChild(const std::string& name, const char* processName = nullptr) {
    auto server = std::make_unique<kt::Child>([&] {
        KelIpcSocket socket;
        if (socket.Open(Process, Server, name.c_str(), nullptr) != IPC_OK) return 1;
        if (processName != nullptr) prctl(PR_SET_NAME, processName, 0, 0, 0);
        kt::TellReady();
        sleep(30);  // until killed; the parent's bounded waits fail first
        return 3;
    });
    return server->WaitReady(10000) ? std::move(server) : nullptr;
}

// Ends that die without closing, in a child: all four objects stay behind, the rings still running.
void LeaveBehind(const std::string& name, bool withClient) {
    ASSERT_EQ(0, kt::RunInChild([&] {
                  auto* server = new KelIpcSocket;  // never closed
                  auto* client = new KelIpcSocket;
                  if (server->Open(Process, Server, name.c_str(), nullptr) != IPC_OK) return 1;
                  return !withClient || client->Open(Process, Client, name.c_str(), nullptr) == IPC_OK ? 0
                                                                                                       : 2;
              }));
}

int RunBash(const std::string& script, std::string* out) {
    ToolProcess bash({"-c", script}, "/bin/bash");
    bash.CloseInput();
    const int code = bash.Finish(20000);
    *out = bash.Out();
    return code;
}

}  // namespace

TEST(KelipcOperator, InspectJsonShowsTheRingsAsTheEndsLeftThem) {
    const std::string name = kt::UniqueName("opinspect");
    KelIpcSocket server, client;
    ASSERT_EQ(IPC_OK, server.Open(Process, Server, name.c_str(), nullptr));
    ASSERT_EQ(IPC_OK, client.Open(Process, Client, name.c_str(), nullptr));
    const std::vector<char> payload = kt::Pattern(1000);
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

    nlohmann::json json = InspectJson(name);
    const nlohmann::json& l = json["L"];
    const nlohmann::json& r = json["R"];
    EXPECT_EQ(true, json["present"]);
    EXPECT_EQ(kBlock, l["segment"]["size"]);
    EXPECT_EQ("0660", l["segment"]["mode"]);
    EXPECT_EQ(getuid(), l["segment"]["uid"]);
    const nlohmann::json expectedL = {{"initialised", true},
                                      {"dataLen", kDataLen},
                                      {"running", true},
                                      {"writePos", 1000},
                                      {"readPos", 400},
                                      {"positionsValid", true},
                                      {"waiting", 600},
                                      {"free", kDataLen - 1 - 600},
                                      {"transTotal", 5000},
                                      {"transLast", 77},
                                      {"server", End("alive", getpid())},
                                      {"client", End("alive", getpid())}};
    EXPECT_EQ(expectedL, l["ring"]);
    EXPECT_EQ(300, r["ring"]["writePos"]);
    EXPECT_EQ(300, r["ring"]["waiting"]);
    EXPECT_EQ(0, r["ring"]["transTotal"]);
    // The blocking write signalled its reader, who has not taken the signal.
    EXPECT_EQ(1, r["semaphore"]["value"]);
    EXPECT_EQ(0, r["semaphore"]["waiters"]);
    EXPECT_EQ(getpid(), r["mappers"][0]["pid"]);

    ASSERT_EQ(IPC_OK, server.Stop());
    json = InspectJson(name);
    for (const char* direction : {"L", "R"}) {
        const nlohmann::json& ring = json[direction]["ring"];
        EXPECT_EQ(false, ring["running"]) << direction;
        EXPECT_EQ(0, ring["writePos"].get<int>() + ring["readPos"].get<int>()) << direction;
    }
}

TEST(KelipcOperator, StopReleasesAReaderBlockedInAnotherProcessAndStartResumesIt) {
    const std::string name = kt::UniqueName("opstop");
    KelIpcSocket server;
    ASSERT_EQ(IPC_OK, server.Open(Process, Server, name.c_str(), nullptr));
    kt::Child child([&] {
        KelIpcSocket client;
        if (client.Open(Process, Client, name.c_str(), nullptr) != IPC_OK) return 10;
        char buffer[100];
        // Nothing comes until the stop.
        if (client.Read(buffer, sizeof buffer) != IPC_ERR_NOT_OPENED) return 11;
        kt::TellReady();
        if (!kt::WaitUntil([&] { return client.Running(); }, 10000)) return 12;
        if (client.Read(buffer, sizeof buffer) != sizeof buffer) return 13;
        return kt::FirstWrong(buffer, sizeof buffer, 0) == -1 ? 0 : 14;
    });
    // Asleep on the R set: the stop has to wake it, not just clear the flag.
    ASSERT_TRUE(kt::WaitUntil([&] { return SemWaiters(name + "_XR_ssm") > 0; }, 10000));

    std::string err;
    ASSERT_EQ(0, RunTool({"stop", name}, "", nullptr, &err)) << err;
    ASSERT_TRUE(child.WaitReady(10000)) << "the blocked reader was not released: " << child.Wait(10000);
    EXPECT_FALSE(server.Running());

    ASSERT_EQ(0, RunTool({"start", name}, "", nullptr, &err)) << err;
    EXPECT_TRUE(server.Running());
    const std::vector<char> payload = kt::Pattern(100);
    ASSERT_EQ(100, server.Write(payload.data(), 100));
    EXPECT_EQ(0, child.Wait(10000));
}

// An end waiting on its descriptor (PollFd) sees an outside stop at once; its FIFO is shown and removed.
TEST(KelipcOperator, StopRingsDescriptorsWhoseFifosInspectListAndCleanShowAndRemove) {
    const std::string name = kt::UniqueName("oppoll");
    KelIpcSocket server;
    KelIpcSocket client;
    ASSERT_EQ(IPC_OK, server.Open(Process, Server, name.c_str(), nullptr));
    ASSERT_EQ(IPC_OK, client.Open(Process, Client, name.c_str(), nullptr));
    pollfd entry{server.PollFd(), POLLIN, 0};
    char byte = 0;
    ASSERT_EQ(0, server.NonBlockRead(&byte, 1));
    const nlohmann::json inspected = InspectJson(name);
    EXPECT_EQ(true, inspected["pollFifos"]["server"]["present"]) << inspected.dump();
    EXPECT_EQ(false, inspected["pollFifos"]["client"]["present"]) << inspected.dump();
    EXPECT_EQ(nlohmann::json::array({"server"}), ListedChannel(name)["descriptors"]);

    std::string out;
    std::string err;
    ASSERT_EQ(0, RunTool({"stop", name}, "", nullptr, &err)) << err;
    EXPECT_EQ(1, poll(&entry, 1, 10000)) << "the stop did not ring the descriptor";
    EXPECT_EQ(IPC_ERR_NOT_OPENED, server.NonBlockRead(&byte, 1));
    EXPECT_EQ(0, RunTool({"clean", "--force", name}, "", &out, &err)) << err;
    EXPECT_NE(std::string::npos, out.find("removed descriptor FIFO /dev/shm/" + name + "_XS_poll")) << out;
    EXPECT_FALSE(kt::ShmExists(name + "_XS_poll"));
    kt::LogCapture quiet;  // the ends' own removals now find nothing
    client.Close();
    server.Close();
}

TEST(KelipcOperator, CleanRemovesOnlyTheNamedChannelAndRefusesWhileMappedUnlessForced) {
    const std::string orphan = kt::UniqueName("oporphan");
    const std::string held = kt::UniqueName("opheld");
    LeaveBehind(orphan, false);
    KelIpcSocket server;
    ASSERT_EQ(IPC_OK, server.Open(Process, Server, held.c_str(), nullptr));
    ASSERT_TRUE(kt::ChannelObjects(orphan) == 4);

    std::string out, err;
    EXPECT_EQ(1, RunTool({"clean", held}, "", &out, &err));
    EXPECT_NE(std::string::npos, err.find("pid " + std::to_string(getpid()))) << err;
    EXPECT_TRUE(kt::ChannelObjects(held) == 4);

    EXPECT_EQ(0, RunTool({"clean", orphan}, "", &out, &err)) << err;
    EXPECT_NE(std::string::npos, out.find("removed segment '/dev/shm/" + orphan + "_XR_shm'")) << out;
    EXPECT_TRUE(kt::ChannelObjects(orphan) == 0);
    EXPECT_TRUE(kt::ChannelObjects(held) == 4);
    for (const char* command : {"inspect", "stop", "start", "clean"}) {
        EXPECT_EQ(1, RunTool({command, orphan}, "", nullptr, &err)) << command;
        EXPECT_NE(std::string::npos, err.find("no channel '" + orphan + "'")) << err;
    }

    EXPECT_EQ(0, RunTool({"clean", "--force", held}, "", &out, &err)) << err;
    EXPECT_TRUE(kt::ChannelObjects(held) == 0);
    kt::LogCapture quiet;  // the server's own removals now find nothing
    server.Close();
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
    const auto json = nlohmann::json::parse(tool.Out().substr(0, tool.Out().find('\n')), nullptr, false);
    EXPECT_EQ(true, json["L"]["ring"]["running"]) << tool.Out();
}

TEST(KelipcOperator, InspectAndListTellLiveDeadAndStaleEnds) {
    const std::string name = kt::UniqueName("oplive");
    const std::string abandoned = kt::UniqueName("opabandoned");
    const std::unique_ptr<kt::Child> serverChild = ServerInChild(name);
    ASSERT_NE(nullptr, serverChild);
    kt::Child& server = *serverChild;
    KelIpcSocket client;
    ASSERT_EQ(IPC_OK, client.Open(Process, Client, name.c_str(), nullptr));

    nlohmann::json json = InspectJson(name);
    EXPECT_EQ(End("alive", server.Pid()), json["server"]);
    EXPECT_EQ(End("alive", getpid()), json["client"]);
    EXPECT_EQ(nlohmann::json::array(), json["warnings"]);
    EXPECT_EQ(true, json["R"]["semaphore"]["marked"]);
    EXPECT_EQ(1, json["R"]["semaphore"]["servers"]);
    for (const nlohmann::json& mapper : json["L"]["mappers"])
        EXPECT_EQ(mapper["pid"] == server.Pid() ? "server" : "client", mapper["role"]) << mapper;
    nlohmann::json listed = ListedChannel(name);
    EXPECT_EQ(false, listed["stale"]) << listed;
    EXPECT_EQ(2u, listed["mappers"].size()) << listed;

    const pid_t serverPid = server.Pid();
    server.Kill();
    json = InspectJson(name);
    EXPECT_EQ(End("dead", serverPid), json["server"]);
    EXPECT_EQ(0, json["L"]["semaphore"]["servers"]);
    listed = ListedChannel(name);
    EXPECT_EQ(true, listed["stale"]) << listed;
    EXPECT_EQ(nlohmann::json::array({"the server is dead"}), listed["reasons"]);
    // The live client still maps it.
    EXPECT_EQ("kelipc clean --force -- '" + name + "'", listed["clean"]);
    client.Close();

    LeaveBehind(abandoned, true);  // the rings still run and nobody maps them
    std::string out, err;
    EXPECT_EQ(0, RunTool({"inspect", abandoned}, "", &out, &err)) << err;
    EXPECT_NE(std::string::npos, out.find("warning: the channel runs but no process maps it")) << out;
    EXPECT_NE(std::string::npos, out.find("  client  dead  pid ")) << out;
    listed = ListedChannel(abandoned);
    EXPECT_EQ("dead", listed["server"]["liveness"]);
    EXPECT_EQ(nlohmann::json::array({"the server is dead", "the client is dead", "no process maps it"}),
              listed["reasons"]);
    EXPECT_EQ("kelipc clean -- '" + abandoned + "'", listed["clean"]);
    EXPECT_EQ(0, RunTool({"list"}, "", &out, &err)) << err;
    EXPECT_NE(std::string::npos, out.find("to remove it: kelipc clean -- '" + abandoned + "'\n")) << out;
}

TEST(KelipcOperator, CleanAllRemovesOnlyMarkedSetsWhoseServerAndSegmentsAreGone) {
    const std::string orphan = kt::UniqueName("oporphanset");
    const std::string live = kt::UniqueName("oplivesets");
    const std::string foreign = kt::UniqueName("opforeignset");
    // A server killed after its segments' names were removed: its sets no name can find remain.
    LeaveBehind(orphan, false);
    kt::RemoveShm(orphan + "_XL_shm");
    kt::RemoveShm(orphan + "_XR_shm");
    KelIpcSocket server;
    ASSERT_EQ(IPC_OK, server.Open(Process, Server, live.c_str(), nullptr));
    // One semaphore, as an older server made it: unmarked, so never proven unused.
    ASSERT_NE(-1, semget(kt::Djb2Key(foreign + "_XL_ssm"), 1, IPC_CREAT | 0600));
    // Sets changed in the last 2 s are kept, as an end may be opening them.
    usleep(2200 * 1000);

    std::string out, err;
    EXPECT_EQ(0, RunTool({"clean", "--all"}, "", &out, &err)) << err;
    for (const char* set : {"_XL_ssm", "_XR_ssm"}) {
        char key[16];
        std::snprintf(key, sizeof key, "0x%08x", static_cast<unsigned>(kt::Djb2Key(orphan + set)));
        EXPECT_NE(std::string::npos, out.find(std::string("removed semaphore set key ") + key)) << out;
        EXPECT_FALSE(kt::SemExists(orphan + set));
    }
    EXPECT_NE(std::string::npos, out.find("removed 2 semaphore sets without segments")) << out;
    EXPECT_TRUE(kt::ChannelObjects(live) == 4);
    EXPECT_TRUE(kt::SemExists(foreign + "_XL_ssm"));

    // A server finding the smaller set uses it as it is.
    KelIpcSocket reuser;
    ASSERT_EQ(IPC_OK, reuser.Open(Process, Server, foreign.c_str(), nullptr));
    const nlohmann::json json = InspectJson(foreign);
    EXPECT_EQ(1, json["L"]["semaphore"]["count"]);
    EXPECT_EQ(false, json["L"]["semaphore"]["marked"]);
    EXPECT_EQ(true, json["R"]["semaphore"]["marked"]);
}

TEST(KelipcOperator, PlantedObjectsNeitherHangNorCrashTheOperatorCommands) {
    const std::string fifo = kt::UniqueName("opfifo");
    const std::string hostile = kt::UniqueName("ophostilesize");
    // Opening a FIFO for reading waits for a writer that never comes.
    ASSERT_EQ(0, mkfifo(("/dev/shm/" + fifo + "_XL_shm").c_str(), 0600));
    // A data area far beyond the segment's 40000 bytes, positions whose sum overflows 32 bits.
    Plant(hostile + "_XL_shm", Segment(40000, INT_MAX - 1, 0, INT_MAX, 1));
    std::string out, err;
    const nlohmann::json planted = InspectJson(fifo);
    EXPECT_EQ(false, planted["L"]["segment"]["regular"]) << planted;
    EXPECT_EQ(0, RunTool({"inspect", fifo}, "", &out, &err, 10000)) << err;
    EXPECT_NE(std::string::npos, out.find("none: the name holds no regular file")) << out;
    for (const char* command : {"stop", "start"}) {
        EXPECT_EQ(1, RunTool({command, fifo}, "", &out, &err, 10000)) << command;
        EXPECT_NE(std::string::npos, err.find("_XL_shm' is not a regular file")) << err;
        EXPECT_EQ(1, RunTool({command, hostile}, "", &out, &err, 10000)) << command;
        EXPECT_NE(std::string::npos, err.find("holds no ring a server has set up (size 40000, data area"))
            << err;
    }
    const nlohmann::json ring = InspectJson(hostile)["L"]["ring"];
    EXPECT_EQ(INT_MAX - 1, ring["waiting"]) << ring;
    EXPECT_EQ(0, ring["free"]) << ring;

    // A name that flips between a FIFO and a regular file cut short and grown again, under list's feet.
    const std::string flipping = kt::UniqueName("opflip");
    const std::string fifoCopy = kt::UniqueName("opflipfifo");
    const std::string fileCopy = kt::UniqueName("opflipfile");
    kt::Child flipper([&] {
        const std::string target = "/dev/shm/" + flipping + "_XL_shm";
        for (;;) {
            if (mkfifo(("/dev/shm/" + fifoCopy).c_str(), 0600) != 0) return 1;
            if (rename(("/dev/shm/" + fifoCopy).c_str(), target.c_str()) != 0) return 2;
            Plant(fileCopy, Segment(65536, 0, 0, 65536 - 9024, 1));
            if (rename(("/dev/shm/" + fileCopy).c_str(), target.c_str()) != 0) return 3;
            for (int i = 0; i < 50; ++i) {
                if (truncate(target.c_str(), i % 2 == 0 ? 0 : 65536) != 0) break;
            }
        }
    });
    for (int run = 0; run < 30; ++run) {
        ASSERT_EQ(0, RunTool({"list", "--json"}, "", &out, &err, 10000)) << "run " << run << ": " << err;
    }
    flipper.Kill();
}

TEST(KelipcOperator, NamesFromOtherUsersPrintSafelyAndTheirCleanLinesPasteBackIntoBash) {
    const std::string base = kt::UniqueName("opname");
    const std::vector<std::string> names = {base + "\x1b]0;owned\x07\n", base + "\xff\xfe'q",
                                            base + " it's\\", "--all"};
    for (const std::string& name : names) {
        kt::Track(name);
        Plant(name + "_XL_shm", "");
    }
    // A mapper whose process name holds an escape sequence and a byte that is not UTF-8.
    const std::string mapped = kt::UniqueName("opmapped");
    const std::unique_ptr<kt::Child> server = ServerInChild(mapped, "\x1b[2J\xff");
    ASSERT_NE(nullptr, server);

    std::string out, err;
    ASSERT_EQ(0, RunTool({"list"}, "", &out, &err)) << err;
    EXPECT_EQ(std::string::npos, out.find('\x1b')) << out;
    EXPECT_EQ(std::string::npos, out.find('\xff')) << out;
    ASSERT_EQ(0, RunTool({"inspect", mapped}, "", &out, &err)) << err;
    EXPECT_EQ(std::string::npos, out.find('\x1b')) << out;
    ASSERT_EQ(0, RunTool({"inspect", names[1], "--json"}, "", &out, &err)) << err;
    EXPECT_EQ("ff", nlohmann::json::parse(out)["nameHex"].get<std::string>().substr(2 * base.size(), 2));
    EXPECT_TRUE(ListedChannel(mapped)["mappers"][0]["command"].is_string());

    // Every suggested line, read back by bash: the word after '--' is the name, byte for byte.
    ASSERT_EQ(0, RunTool({"list"}, "", &out, &err)) << err;
    std::vector<std::string> commands;
    std::string script;
    std::istringstream lines(out);
    for (std::string line; std::getline(lines, line);) {
        const size_t at = line.find("to remove it: kelipc clean -- ");
        if (at == std::string::npos) continue;
        commands.push_back(line.substr(at + 14));
        script += "printf '%s\\0' " + line.substr(at + 30) + "\n";
    }
    std::string decoded;
    ASSERT_EQ(0, RunBash(script, &decoded));
    std::string run =
        "set -e; PATH=" + std::string(KELIPC_BINARY).substr(0, std::string(KELIPC_BINARY).rfind('/')) +
        ":$PATH\n";
    size_t start = 0;
    for (const std::string& command : commands) {
        const size_t end = decoded.find('\0', start);
        ASSERT_NE(std::string::npos, end) << decoded;
        if (std::find(names.begin(), names.end(), decoded.substr(start, end - start)) != names.end())
            run += command + "\n";
        start = end + 1;
    }
    ASSERT_EQ(0, RunBash(run, &out)) << run;
    for (const std::string& name : names) EXPECT_FALSE(kt::ShmExists(name + "_XL_shm")) << out;
}

TEST(KelipcOperator, CleanLeavesSetsAtTheKeyThatAreNotTheChannelsAlone) {
    // djb2 gives "ab" and "bA" one key, whatever comes before and after them.
    const std::string prefix = kt::UniqueName("opcoll");
    const std::string live = prefix + "ab";
    const std::string colliding = prefix + "bA";
    const std::string unmarked = kt::UniqueName("opunmarked");
    kt::Track(live);
    kt::Track(colliding);
    ASSERT_EQ(kt::Djb2Key(live + "_XL_ssm"), kt::Djb2Key(colliding + "_XL_ssm"));
    KelIpcSocket server;
    ASSERT_EQ(IPC_OK, server.Open(Process, Server, live.c_str(), nullptr));
    // As an older or foreign server leaves it: nothing proves whose it is.
    ASSERT_NE(-1, semget(kt::Djb2Key(unmarked + "_XL_ssm"), 1, IPC_CREAT | 0600));

    std::string out, err;
    EXPECT_EQ(1, RunTool({"clean", "--force", colliding}, "", &out, &err));
    EXPECT_NE(std::string::npos, out.find("alone: it was made for another name")) << out;
    EXPECT_TRUE(kt::ChannelObjects(live) == 4);
    EXPECT_EQ(1, RunTool({"clean", unmarked}, "", &out, &err));
    EXPECT_NE(std::string::npos, out.find("alone: no server of this library marked it")) << out;
    EXPECT_TRUE(kt::SemExists(unmarked + "_XL_ssm"));
    // The colliding name's own inspect tells the set it finds is not its own.
    EXPECT_EQ(false, InspectJson(colliding)["L"]["semaphore"]["named"]);
}
