// Fuzz target: fromJson() of arbitrary text.
//
// fromJson either refuses the text with WireError or returns a tree, never
// anything else. What it accepts is JSON by nlohmann's own reading of it;
// toJson writes the tree back without a throw (fromJson makes no NaN and no
// text that is not UTF-8), fromJson reads that to the same tree, and toJson
// of it gives the same text again.

#include <kest/metadata/Element.h>
#include <kest/net/Json.h>
#include <kest/net/WireError.h>

#include <support/TreeSupport.h>

#include "FuzzSupport.h"

#include <nlohmann/json.hpp>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    Kest::MetaData::Element tree;
    try {
        tree = Kest::Net::fromJson(text);
    } catch (const Kest::Net::WireError&) {
        return 0;
    }
    KestFuzz::check(nlohmann::json::accept(text.begin(), text.end()), "accepted text that is not JSON");

    std::string written;
    try {
        written = Kest::Net::toJson(tree);
    } catch (const Kest::Net::WireError& error) {
        KestFuzz::fail(std::string("a tree read from JSON could not be written: ") + error.what());
    }
    Kest::MetaData::Element again;
    try {
        again = Kest::Net::fromJson(written);
    } catch (const Kest::Net::WireError& error) {
        KestFuzz::fail(std::string("written JSON was refused: ") + error.what() + "\n" + written);
    }
    if (!KestTest::sameTree(tree, again)) {
        KestFuzz::fail("tree changed: " + KestTest::describeTree(tree) + " then " + KestTest::describeTree(again));
    }
    KestFuzz::check(Kest::Net::toJson(again) == written, "writing JSON is not deterministic");
    return 0;
}
