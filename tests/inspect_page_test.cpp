// Tests of the inspector's page in a browser, which parses it and runs its script.
#include <gmock/gmock.h>

#include <nlohmann/json.hpp>

#include "inspect_support.h"

using json_t = nlohmann::json;
using testing::HasSubstr;

static const char *const BROWSER = "/usr/bin/chromium";

class Page : public ToolTest {
 protected:
  Page() : ToolTest(TSLB_INSPECT) {}

  void SetUp() override {
    if (access(BROWSER, X_OK) != 0) GTEST_SKIP() << "chromium is not installed";
  }

  std::string tree_of(const std::string &file, const arguments_t &more = {}) const {
    arguments_t arguments = {"--headless",
                             "--no-sandbox",
                             "--disable-gpu",
                             "--disable-quic",
                             "--no-first-run",
                             "--disable-background-networking",
                             "--disable-component-update",
                             "--disable-sync",
                             "--user-data-dir=" + path("profile"),
                             "--dump-dom"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    arguments.push_back("file://" + path(file));
    const run_t ran = run_program(BROWSER, arguments);
    EXPECT_EQ(ran.exit_code, 0) << ran.err;
    return ran.out;
  }

  // Runs a script after that of the page. Returns the object that its function `use` returns.
  json_t result_of(const std::string &script, const arguments_t &more = {}) const {
    const std::string page = read("page.html");
    write("used.html",
          page.substr(0, page.rfind("</body>")) + "<script>\n" + script +
              "\nconst result = document.createElement('pre');\n"
              "try { result.textContent = JSON.stringify(use()); } catch (e) { result.textContent = e.stack; }\n"
              "result.id = 'result';\ndocument.body.append(result);\n</script></body></html>\n");
    const std::string tree = tree_of("used.html", more), mark = "<pre id=\"result\">";
    const size_t at = tree.find(mark);
    if (at == std::string::npos) ADD_FAILURE() << "the script did not end:\n" << tree.substr(0, 2000);
    const std::string text = tree.substr(at + mark.size(), tree.find("</pre>", at) - at - mark.size());
    const json_t result = json_t::parse(text, nullptr, false);
    EXPECT_FALSE(result.is_discarded()) << text;
    return result;
  }
};

// Helpers of the scripts below. `texts` has no narrow blanks, which separate groups of digits.
static const std::string HELPERS = R"(
const part = name => document.querySelector(`[data-part=${name}]`);
const texts = nodes => [...nodes].map(node => node.textContent.replaceAll('\u202F', ''));
const rows = name => [...part(name).querySelectorAll('tr[data-row]')].map(row => texts(row.children).slice(0, -1));
const search = (name, text) => {
  const input = part(name).querySelector('input');
  input.value = text;
  input.dispatchEvent(new Event('input'));
  return rows(name).map(row => row[0]);
};
const canvas = document.querySelector('canvas');
const press = key => canvas.dispatchEvent(new KeyboardEvent('keydown', {key, cancelable: true}));
const status = () => texts(part('map').querySelectorAll('.status span'));
const at = (type, x, y, more = {}) => {
  const {left, top} = canvas.getBoundingClientRect();
  const Kind = type === 'wheel' ? WheelEvent : PointerEvent;
  return canvas.dispatchEvent(new Kind(type, {clientX: left + x, clientY: top + y, pointerId: 1, cancelable: true, ...more}));
};
const ink = () => {  // of the first cell
  const ratio = devicePixelRatio;
  return [...canvas.getContext('2d').getImageData(80 * ratio, 6 * ratio, 1, 1).data];
};
)";

TEST_F(Page, NamesAndTextsOfFilesDoNotRun) {
  std::string damaged = stream_of(two_lists().get());
  write_at(damaged.data(), slot(0), uint32_t{3});
  const std::string hostile = "<script>document.title='run'<!--";
  damaged.replace(slot(1) + 8, 12, "</script><b>");
  write(hostile, damaged);
  write("text.layout", "layout </script> bytes 12\nfield <b> 0 char[12]\n");
  ASSERT_EQ(run({"--html", "page.html", "--svg", "picture.svg", "--layout", "text.layout", hostile}).exit_code, 1);
  const std::string page = tree_of("page.html");
  EXPECT_THAT(page, HasSubstr("<title>Stored arrays</title>")) << "a file's name ran as a script";
  EXPECT_THAT(page, HasSubstr("<td>slot 0 has the status inactive, but is not on that list</td>"));
  EXPECT_THAT(page, HasSubstr(">&lt;/script&gt;&lt;b&gt;</td>")) << "the text of record 1";
  EXPECT_EQ(page.find("<b>"), std::string::npos);
  EXPECT_EQ(page.find("http:"), std::string::npos) << "nothing is loaded from elsewhere";
  EXPECT_EQ(page.find("src="), std::string::npos);
  const std::string picture = tree_of("picture.svg");
  EXPECT_EQ(picture.find("parsererror"), std::string::npos);
  EXPECT_EQ(count_of(picture, "<title>slot "), 35u) << "each slot is one cell";
}

TEST_F(Page, SearchSortAndRecordsByField) {
  write("in", stream_of(two_lists().get()));
  write("pair.layout", "layout pair bytes 12\nfield low 0 u32\nfield rest 4 bytes[8]\n");
  ASSERT_EQ(run("--html page.html --layout pair.layout in").exit_code, 0);
  const json_t result = result_of(HELPERS + R"(
function use() {
  const free = search('slots', 'free'), one = search('slots', '7'), none = search('slots', 'free 7');
  search('records', '');
  const low = part('records').querySelectorAll('th button')[2];
  low.click();
  low.click();
  const sorted = rows('records')[0], less = search('records', 'low<3'), text = search('records', 'inactive low>5');
  part('records').querySelector('tr[data-row]').click();
  return {free, one, none, sorted, less, text, chosen: status()[0]};
})");
  EXPECT_EQ(result["free"], json_t({"2", "4", "9"}));
  EXPECT_EQ(result["one"], json_t({"7"}));
  EXPECT_TRUE(result["none"].empty());
  EXPECT_EQ(result["sorted"], json_t({"19", "active", "19", "0000000000000000"}));
  EXPECT_EQ(result["less"], json_t({"1", "0"})) << "slot 2 is free, and the order stays";
  EXPECT_EQ(result["text"], json_t({"7"}));
  EXPECT_EQ(result["chosen"], "Slot 7: inactive");
}

TEST_F(Page, MapOfAPoolByMouseAndKeyboard) {
  write("pool", stream_of(chunk_pool().get()));
  ASSERT_EQ(run("--html page.html pool").exit_code, 0);
  const json_t result = result_of(HELPERS + R"(
function use() {
  const whole = status()[1];
  canvas.focus();
  for (const key of ['End', 'Home', 'ArrowRight']) press(key);
  const second = status()[0];
  press('ArrowRight');
  const third = status()[0], scrolls = at('wheel', 200, 10, {deltaY: -900}), zoomed = status()[1];
  press('0');
  const all = status()[1];
  at('pointermove', 80, 6);
  const tip = texts(part('map').querySelectorAll('.tip b, .tip div'));
  at('pointerdown', 80, 6);
  at('pointerup', 80, 6);
  const first = status()[0], byBytes = ink();
  [...part('map').querySelectorAll('button')].find(button => button.textContent === 'Status').click();
  const byStatus = ink();
  const live = part('slots').querySelectorAll('th button')[2];
  live.click();
  live.click();
  const fullest = rows('slots').map(row => row[0]).slice(0, 3), less = search('slots', 'live<50');
  search('slots', 'current');
  return {whole, second, third, scrolls, zoomed, all, tip, first, byBytes, byStatus, fullest, less, dimmed: ink(), current: rows('slots')};
})");
  EXPECT_EQ(result["whole"], "18 slots");
  EXPECT_EQ(result["second"],
            "Slot 1: active, 24 of 64 bytes in live chunks (38 %), 32 bytes deleted, 8 without a chunk");
  EXPECT_EQ(result["third"],
            "Slot 2: active, 24 of 64 bytes in live chunks (38 %), 0 bytes deleted, 40 without a "
            "chunk, slot 2 is current");
  EXPECT_EQ(result["scrolls"], false) << "the wheel scrolled the page and did not zoom";
  EXPECT_THAT(result["zoomed"], testing::StartsWith("rows of slots "));
  EXPECT_EQ(result["all"], result["whole"]);
  EXPECT_EQ(result["tip"], json_t({"Slot 0", "free"}));
  EXPECT_EQ(result["first"], "Slot 0: free");
  EXPECT_EQ(result["byBytes"][3], 0) << "a slot without chunks is hollow";
  EXPECT_EQ(result["byStatus"][3], 255);
  EXPECT_EQ(result["fullest"], json_t({"1", "2", "0"})) << "slots without chunks come last";
  EXPECT_EQ(result["less"], json_t({"1", "2"}));
  EXPECT_LT(result["dimmed"][3], 100) << "the search does not show in the map";
  EXPECT_EQ(result["current"], json_t({{"2", "active, current", "38 %", "24", "0", "40"}}));
}

// Wherever it is opened, and whatever the array has: the page is no wider than the window, and its size is bounded.
TEST_F(Page, ManySlotsInASmallDarkWindow) {
  const array_t array(tslb_da_init_ll(64, 300000, MPOOL_TYPE_DRAM, nullptr, 1, TSLB_DA_DAFLAG_LL));
  tslb_da_get_range(array.get(), 250000);
  for (uint32_t idx = 0; idx < 64; ++idx) tslb_da_free_idx(array.get(), idx);
  write("in", stream_of(array.get()));
  ASSERT_EQ(run("--html page.html in").exit_code, 0);
  EXPECT_LT(read("page.html").size(), 1'000'000u);
  const std::string script = HELPERS + R"(
function use() {
  const page = document.documentElement;
  const found = search('slots', '200001'), free = search('slots', 'free>0');
  return {overflow: page.scrollWidth - page.clientWidth, width: page.clientWidth, found, free,
    paper: getComputedStyle(document.body).backgroundColor, nRows: document.querySelectorAll('tr[data-row]').length};
})";
  const json_t result = result_of(script, {"--window-size=500,700", "--blink-settings=preferredColorScheme=0"});
  EXPECT_EQ(result["overflow"], 0);
  EXPECT_LE(result["width"], 500);
  EXPECT_EQ(result["found"], json_t({"200000"})) << "32 slots to a cell";
  EXPECT_EQ(result["free"], json_t({"0", "32"}));
  EXPECT_LT(result["nRows"], 200) << "all rows are elements";
  EXPECT_EQ(result["paper"], "rgb(20, 24, 30)");
}
