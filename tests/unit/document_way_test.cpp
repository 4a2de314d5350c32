// The document way, end to end on the simulator: a document beside the
// image on a simulated ESP, its jobs, its menu and the keys a person types.
#include <efi.h>
#include <gtest/gtest.h>

#include <string>

#include "platform/host/simulator.h"
#include "tests/support/temp_folder.h"

extern "C" EFI_STATUS EFIAPI _ModuleEntryPoint(EFI_HANDLE image, EFI_SYSTEM_TABLE* system_table);

namespace {

const std::string kStartup = "Iniciando el cargador Morvane UEFI...\r\n";
const std::string kBadConfiguration = "Runtime exception '', code 21495817, tag 0x";
const std::string kOpenFailure = "Runtime exception 'Error durante la apertura del archivo.', code 262151, tag 0x";
constexpr std::uint16_t kScanUp = 1;
constexpr std::uint16_t kScanEsc = 23;

struct Machine {
    TestSupport::TempFolder esp;
    HostFirmware::Simulator firmware;
    Machine() { firmware.MountEsp(esp.Path()); }
    void Document(const std::string& text) { esp.Write("EFI/BOOT/BOOTX64.xml", text); }
    std::string Boot() {
        status = firmware.RunImage(_ModuleEntryPoint);
        std::string console = firmware.ConsoleUtf8();
        firmware.ClearConsole();
        return console;
    }
    EFI_STATUS status = 0;
};

bool EndsWithReport(const std::string& console, const std::string& report) {
    std::size_t at = console.rfind("Runtime exception");
    return at != std::string::npos && console.compare(at, report.size(), report) == 0 &&
           console.size() == at + report.size() + 16 + 2;
}

TEST(DocumentWay, MenuPrintsTopicAndEntriesInKeyOrderAndRunsTheChosenEntry) {
    Machine machine;
    machine.Document(R"(<Boot>
  <Menu>
    <Topic Text="Elija:"/>
    <Entry Key="2" Text="dos"><Chainload/></Entry>
    <Entry Key="1" Text="uno"><Chainload/></Entry>
    <Entry Key="Esc" Text="salir"><Chainload/></Entry>
    <Entry Key="x"><Chainload/></Entry>
  </Menu>
</Boot>)");
    machine.firmware.PushKey(u'q');
    machine.firmware.PushKey(0, kScanUp);
    machine.firmware.PushKey(u'x');
    EXPECT_EQ(machine.Boot(), kStartup + "Elija:\r\nsalir\r\nuno\r\ndos\r\n");
    EXPECT_EQ(machine.status, 1u);
    EXPECT_FALSE(machine.firmware.EndedWaitingForever());
    // Keys that are not in the menu were read and dropped.
    EXPECT_TRUE(machine.firmware.keys_.empty());
    EXPECT_EQ(machine.firmware.ConsoleResets(), 1);
}

TEST(DocumentWay, TimeoutRunsTheDefaultAndStrayKeysDoNotExtendIt) {
    Machine machine;
    machine.Document(R"(<R><Menu><Topic Delay="30"/>
      <Entry Key="a" Text="A"><Menu><Entry Key="b" Text="nested"><Chainload/></Entry></Menu></Entry>
      <Entry Key="c" Text="C" Default=""><Chainload/></Entry></Menu></R>)");
    machine.firmware.PushKey(u'z', 0, 29000000);
    EXPECT_EQ(machine.Boot(), kStartup + "A\r\nC\r\n");
    EXPECT_EQ(machine.firmware.Now(), 30000000u);
    EXPECT_EQ(machine.firmware.LiveEvents(), 1u);  // the timer was closed; the console's event stays
}

TEST(DocumentWay, NestedMenuWithItsOwnDefaultAndNoRepeatedConsoleReset) {
    Machine machine;
    machine.Document(R"(<R><Menu><Topic Text="outer"/>
      <Entry Key="F2" Text="inner menu"><Menu><Topic Text="inner" Delay="5"/>
          <Entry Key="y" Text="Y" Default="1"><Chainload/></Entry></Menu></Entry>
      </Menu></R>)");
    machine.firmware.PushKey(0, 12);
    EXPECT_EQ(machine.Boot(), kStartup + "outer\r\ninner menu\r\ninner\r\nY\r\n");
    EXPECT_EQ(machine.firmware.Now(), 5000000u);
    EXPECT_EQ(machine.firmware.ConsoleResets(), 1);
}

TEST(DocumentWay, DelayZeroTakesAWaitingKeyFirst) {
    for (bool key_waiting : {true, false}) {
        Machine machine;
        machine.Document(R"(<R><Menu><Topic Delay="0"/>
          <Entry Key="k" Text="K"><Menu><Topic Text="chosen"/><Entry Key="Up"><Chainload/></Entry></Menu></Entry>
          <Entry Key="d" Default=""><Chainload/></Entry></Menu></R>)");
        if (key_waiting) {
            machine.firmware.PushKey(u'k');
            machine.firmware.PushKey(0, kScanUp);
        }
        std::string console = machine.Boot();
        EXPECT_EQ(console, kStartup + (key_waiting ? "K\r\nchosen\r\n" : "K\r\n"));
        EXPECT_EQ(machine.firmware.Now(), 0u);
    }
}

TEST(DocumentWay, MenuWithoutTimeoutWaitsForAKey) {
    Machine machine;
    machine.Document(R"(<R><Menu><Entry Key="Esc" Text="only"><Chainload/></Entry></Menu></R>)");
    EXPECT_EQ(machine.Boot(), kStartup + "only\r\n");
    EXPECT_TRUE(machine.firmware.EndedWaitingForever());
    machine.firmware.PushKey(0, kScanEsc, 3600000000ull);
    machine.Boot();
    EXPECT_FALSE(machine.firmware.EndedWaitingForever());
    EXPECT_EQ(machine.status, 1u);
}

TEST(DocumentWay, RefusalsOfTheSchema) {
    const char* const documents[] = {
        "<R/>",                                                               // no main action
        "<R><Jobs/></R>",                                                     // first child is Jobs
        "<R><Kernel/></R>",                                                   // not an action
        "<R><Chainload><Loading Text=\"\"/></Chainload></R>",                 // empty Loading text
        "<R><Chainload><Loading/></Chainload></R>",                           // Loading without Text
        "<R><Menu><Entry Text=\"no key\"><Chainload/></Entry></Menu></R>",    // Entry without Key
        "<R><Menu><Entry Key=\"a\"/></Menu></R>",                             // no child action
        "<R><Menu><Entry Key=\"a\"><Chainload/><Chainload/></Entry></Menu></R>",
        "<R><Menu><Entry Key=\"a\"><Jobs/></Entry></Menu></R>",
        "<R><Menu><Entry Key=\"Up\"><Chainload/></Entry><Entry Key=\"Upper\"><Chainload/></Entry></Menu></R>",
        "<R><Menu><Entry Key=\"a\" Default=\"\"><Chainload/></Entry>"
        "<Entry Key=\"b\" Default=\"\"><Chainload/></Entry></Menu></R>",
        "<R><Menu><Topic Delay=\"3\"/><Entry Key=\"a\"><Chainload/></Entry></Menu></R>",
        "<R><Jobs><Copy/></Jobs><Chainload/></R>",                            // only Rename is a job
        "not a document",
        "",
    };
    for (const char* document : documents) {
        Machine machine;
        machine.Document(document);
        std::string console = machine.Boot();
        EXPECT_TRUE(EndsWithReport(console, kBadConfiguration)) << document << "\n" << console;
        EXPECT_EQ(machine.firmware.Stalls(), std::vector<std::uint64_t>{10000000u});
    }
}

TEST(DocumentWay, AcceptedOddities) {
    const char* const documents[] = {
        "<R><Chainload/><Menu><Entry/></Menu></R>",                     // later candidates are ignored
        "<R><Menu><Topic Delay=\"-1\"/><Entry Key=\"a\"/></Menu></R>",   // Delay -1 needs no default (never built: no key)
        "<R><Chainload/><Jobs/><Jobs><Rename/></Jobs></R>",             // a second Jobs is not looked at
        "<R><Chainload><Loading Text=\"Cargando\"/></Chainload><Other/></R>",
    };
    for (const char* document : documents) {
        Machine machine;
        machine.Document(document);
        std::string console = machine.Boot();
        // The -1 delay menu above is refused for its entry without child, not for the delay.
        bool refused = console.find("Runtime exception") != std::string::npos;
        EXPECT_EQ(refused, std::string(document).find("Entry Key=\"a\"/") != std::string::npos) << document << console;
    }
}

TEST(DocumentWay, EmptyKeyPrintsItsLineButCannotBeChosen) {
    Machine machine;
    machine.Document(R"(<R><Menu><Topic Delay="2"/><Entry Key="" Text="never"><Menu><Topic Text="wrong"/></Menu></Entry>
                       <Entry Key="d" Default=""><Chainload/></Entry></Menu></R>)");
    machine.firmware.PushKey(u'q');
    EXPECT_EQ(machine.Boot(), kStartup + "never\r\n");
    EXPECT_EQ(machine.firmware.Now(), 2000000u);
}

TEST(DocumentWay, RenameJobsRunInOrderBeforeTheMainAction) {
    Machine machine;
    std::string big(32768 * 3 + 5, '\0');
    for (std::size_t i = 0; i < big.size(); ++i) big[i] = static_cast<char>(i * 31);
    machine.esp.Write("a.bin", big);
    machine.esp.Write("dir/old.txt", "old target, longer than the new one");
    machine.esp.Write("dir/new.txt", "short");
    machine.esp.Write("empty", "");
    machine.Document(R"(<R><Chainload/><Jobs>
        <Rename FileNameSource="\a.bin" FileNameTarget="\b.bin"/>
        <Rename FileNameSource="\dir\new.txt" FileNameTarget="\dir\old.txt"/>
        <Rename FileNameSource="\empty" FileNameTarget="\dir\moved"/>
      </Jobs></R>)");
    EXPECT_EQ(machine.Boot(), kStartup);
    EXPECT_EQ(machine.esp.Read("b.bin"), big);
    EXPECT_EQ(machine.esp.Read("a.bin"), "<missing>");
    EXPECT_EQ(machine.esp.Read("dir/old.txt"), "short");
    EXPECT_EQ(machine.esp.Read("dir/new.txt"), "<missing>");
    EXPECT_EQ(machine.esp.Read("dir/moved"), "");
    EXPECT_EQ(machine.esp.Read("empty"), "<missing>");

    // The second run finds its source gone: the job fails, nothing changes,
    // and neither later jobs nor the main action run.
    std::string second = machine.Boot();
    EXPECT_TRUE(EndsWithReport(second, kOpenFailure)) << second;
    EXPECT_EQ(machine.esp.Read("b.bin"), big);
}

TEST(DocumentWay, FailedJobStopsEverythingBehindIt) {
    Machine machine;
    machine.esp.Write("later", "stays");
    machine.Document(R"(<R><Menu><Entry Key="a" Text="menu"><Chainload/></Entry></Menu><Jobs>
        <Rename FileNameSource="\nowhere" FileNameTarget="\x"/>
        <Rename FileNameSource="\later" FileNameTarget="\moved"/>
      </Jobs></R>)");
    std::string console = machine.Boot();
    EXPECT_TRUE(EndsWithReport(console, kOpenFailure)) << console;
    EXPECT_EQ(console.find("menu"), std::string::npos);
    EXPECT_EQ(machine.esp.Read("later"), "stays");
    // A job without a target: the copy cannot create it, the source stays.
    Machine no_target;
    no_target.esp.Write("src", "data");
    no_target.Document(R"(<R><Chainload/><Jobs><Rename FileNameSource="\src"/></Jobs></R>)");
    EXPECT_TRUE(EndsWithReport(no_target.Boot(), kOpenFailure));
    EXPECT_EQ(no_target.esp.Read("src"), "data");
}

TEST(DocumentWay, HostileDocumentsAreRefusedWithoutHangOrCrash) {
    // A folder where the document should be: not a file, so it does not open.
    Machine folder;
    std::system(("mkdir -p '" + folder.esp.Path() + "/EFI/BOOT/BOOTX64.xml'").c_str());
    EXPECT_TRUE(EndsWithReport(folder.Boot(), kOpenFailure));

    // 50 MiB: blanks in front of a root that never closes, and zeros.
    for (char filler : {' ', '\0'}) {
        Machine large;
        std::string document(50u << 20, filler);
        document += "<R><Chainload/>";
        large.Document(document);
        EXPECT_TRUE(EndsWithReport(large.Boot(), kBadConfiguration));
    }

    // A Delay that is not a number reads as 0: the default runs at once.
    Machine not_a_number;
    not_a_number.Document(R"(<R><Menu><Topic Delay="soon"/><Entry Key="a" Text="A"><Menu><Topic Text="no"/></Menu></Entry>
                           <Entry Key="b" Default=""><Chainload/></Entry></Menu></R>)");
    not_a_number.firmware.PushKey(u'a', 0, 1);
    EXPECT_EQ(not_a_number.Boot(), kStartup + "A\r\n");
    EXPECT_EQ(not_a_number.firmware.Now(), 0u);
}

TEST(DocumentWay, DocumentPathTakesTheLastDotOfTheWholePath) {
    Machine machine;
    machine.firmware.SetImagePath({u"\\EFI.D\\LOADER"});
    machine.esp.Write("EFI.xml", "<R><Menu><Topic Text=\"found\"/><Entry Key=\"a\"><Chainload/></Entry></Menu></R>");
    machine.firmware.PushKey(u'a');
    EXPECT_EQ(machine.Boot(), kStartup + "found\r\n");
}

}  // namespace
