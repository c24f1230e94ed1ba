#pragma once

// Checks of the basic guarantee of reading a record from a tree and writing
// one into a tree, for the harness.

#include "AllocHarness.h"
#include "Describe.h"

#include <kest/metadata/Element.h>
#include <kest/metadata/MirroredObject.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace KestAlloc {

// The line an array field prints when it cannot read its element.
inline std::string arrayCorruptLine(const std::string& name) {
    return "Exception MetaDat::ReflectorArray MetaData Array corrupt for " + name + "\n";
}

// After a read that ran out of memory, which must not have thrown: every
// field holds what it read (`after`) or fell back as on any failed read, a
// scalar or record field to its reset state (`reset`), an array field
// (`arrays` names it) to what it held (`before`), having printed its
// "MetaData Array corrupt" line on a line of its own. The lists are
// flatFieldsOf() descriptions.
inline void checkReadFellBack(const std::vector<std::string>& now, const std::vector<std::string>& before,
                              const std::vector<std::string>& after, const std::vector<std::string>& reset,
                              const std::vector<std::string>& arrays, const std::string& printed) {
    check(now.size() == before.size() && now.size() == after.size() && now.size() == reset.size() &&
              now.size() == arrays.size(),
          "the record's fields changed in number");
    const std::string all = "\n  now:    " + join(now) + "\n  before: " + join(before) + "\n  after:  " +
                            join(after) + "\n  reset:  " + join(reset) + "\n  output: " + printed;
    for (std::size_t j = 0; j < now.size(); ++j) {
        if (now[j] == after[j]) continue;
        if (arrays[j].empty()) {
            check(now[j] == reset[j], "field " + now[j] + " neither read the tree nor was reset" + all);
        } else {
            check(now[j] == before[j], "array field " + now[j] + " neither read the tree nor kept its value" + all);
            const std::string line = arrayCorruptLine(arrays[j]);
            const std::size_t at = printed.find(line);
            check(at != std::string::npos && (at == 0 || printed[at - 1] == '\n'),
                  "array field " + arrays[j] + " kept its value without its line of its own" + all);
        }
    }
}

// After a failed write of a record into an empty tree: each field's member
// is either written whole or, for the field that failed and only that one,
// present in any state; the fields after it are not written.
inline void checkWriteStoppedAtAField(const Kest::MetaData::MirroredObject& record, const Kest::MetaData::Element& tree,
                                      const Kest::MetaData::Element& complete) {
    using Kest::MetaData::Element;
    using Kest::MetaData::HasElement;
    bool stopped = false;
    std::size_t members = 0;
    std::string problem;
    record.forEachField([&](const Kest::MetaData::ReflectorBase& field) {
        if (!problem.empty()) return;
        const bool here = HasElement(tree, field.name());
        const bool wanted = HasElement(complete, field.name());
        if (here) ++members;
        if (stopped) {
            if (here) problem = "field " + field.name() + " was written after the one that failed";
            return;
        }
        if (!wanted) {
            if (here) problem = "field " + field.name() + " was written though it is not set";
            return;
        }
        if (!here || describe(static_cast<const Element&>(tree)[field.name()]) !=
                         describe(static_cast<const Element&>(complete)[field.name()])) {
            stopped = true;  // the field that failed: absent or partly written
        }
    });
    check(problem.empty(), problem + "\n  tree:     " + describe(tree) + "\n  complete: " + describe(complete));
    const std::size_t all = tree.GetElementType() == Element::ObjectType
                                ? static_cast<const Kest::MetaData::Object&>(tree).size()
                                : 0;
    check(all == members, "the tree holds members that are no field's: " + describe(tree));
}

// A record read from a tree with each allocation failing: `read(state)`
// reads, `record(state)` is the record read. A read never throws: each
// failure must leave the record as checkReadFellBack() allows, and the read
// made again must read the whole tree.
template <class State, class Setup, class Read, class RecordOf>
Coverage coverRead(const std::string& operation, Setup setup, Read read, RecordOf recordOf,
                   const std::string& masked = "") {
    struct Reference {
        bool known = false;
        std::vector<std::string> before;
        std::vector<std::string> after;
        std::vector<std::string> reset;
        std::vector<std::string> arrays;
    };
    auto reference = std::make_shared<Reference>();
    auto setupKnowingReference = [setup, read, recordOf, reference, masked]() {
        if (!reference->known) {
            std::shared_ptr<State> model = setup();
            reference->before = flatFieldsOf(recordOf(*model), masked);
            reference->arrays = flatArrayNamesOf(recordOf(*model));
            read(*model);
            reference->after = flatFieldsOf(recordOf(*model), masked);
            // Every scalar and record field of a record read from an empty
            // tree is in its reset state.
            std::shared_ptr<State> emptied = setup();
            recordOf(*emptied).copyFromMetaData(Kest::MetaData::Element());
            reference->reset = flatFieldsOf(recordOf(*emptied), masked);
            reference->known = true;
        }
        return setup();
    };
    Options options;
    options.mayAbsorb = true;  // it must, in fact: checked below
    return cover<State>(
        operation, setupKnowingReference, read,
        [read, recordOf, reference, masked](State& state, std::size_t, bool threw) {
            check(!threw, "std::bad_alloc left a read from a tree");
            checkReadFellBack(flatFieldsOf(recordOf(state), masked), reference->before, reference->after,
                              reference->reset, reference->arrays, output());
            read(state);
            checkEqual(flatFieldsOf(recordOf(state), masked), reference->after,
                       "the read made after the failure did not read the tree");
        },
        [recordOf, reference, masked](State& state) {
            checkEqual(flatFieldsOf(recordOf(state), masked), reference->after, "the record did not read the tree");
        },
        options);
}

// A record written into the empty tree `treeOf(state)` with each allocation
// failing; the record must not change.
template <class State, class Setup, class RecordOf, class TreeOf>
Coverage coverWrite(const std::string& operation, Setup setup, RecordOf recordOf, TreeOf treeOf) {
    struct Reference {
        bool known = false;
        std::string record;
        Kest::MetaData::Element tree;
    };
    auto reference = std::make_shared<Reference>();
    auto setupKnowingReference = [setup, recordOf, treeOf, reference]() {
        if (!reference->known) {
            std::shared_ptr<State> model = setup();
            reference->record = describeRecord(recordOf(*model));
            recordOf(*model).copyToMetaData(treeOf(*model));
            reference->tree = treeOf(*model);
            reference->known = true;
        }
        return setup();
    };
    return cover<State>(
        operation, setupKnowingReference, [recordOf, treeOf](State& state) { recordOf(state).copyToMetaData(treeOf(state)); },
        [recordOf, treeOf, reference](State& state, std::size_t, bool) {
            checkEqual(describeRecord(recordOf(state)), reference->record, "the record changed");
            checkWriteStoppedAtAField(recordOf(state), treeOf(state), reference->tree);
            Kest::MetaData::Element fresh;
            recordOf(state).copyToMetaData(fresh);
            checkEqual(describe(fresh), describe(reference->tree), "a write after the failure did not write the record");
        },
        [treeOf, reference](State& state) {
            checkEqual(describe(treeOf(state)), describe(reference->tree), "the tree differs");
        });
}

}  // namespace KestAlloc
