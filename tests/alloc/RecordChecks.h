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

// After a failed read: the fields read before the failure hold their new
// values (`after`), the others their old ones (`before`), each whole. The
// lists are flatFieldsOf() descriptions, in the order in which a read
// changes the fields.
inline void checkReadStoppedBetweenFields(const std::vector<std::string>& now, const std::vector<std::string>& before,
                                          const std::vector<std::string>& after) {
    check(now.size() == before.size() && now.size() == after.size(), "the record's fields changed in number");
    std::size_t i = 0;
    while (i < now.size() && now[i] == after[i]) ++i;
    for (std::size_t j = i; j < now.size(); ++j) {
        check(now[j] == before[j], "after the field that failed, field " + now[j] +
                                       " is neither what it held (" + before[j] + ") nor, in order, what it read (" +
                                       after[j] + ")\n  now:    " + join(now) + "\n  before: " + join(before) +
                                       "\n  after:  " + join(after));
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
// reads, `record(state)` is the record read.
template <class State, class Setup, class Read, class RecordOf>
Coverage coverRead(const std::string& operation, Setup setup, Read read, RecordOf recordOf,
                   const std::string& masked = "") {
    struct Reference {
        bool known = false;
        std::vector<std::string> before;
        std::vector<std::string> after;
    };
    auto reference = std::make_shared<Reference>();
    auto setupKnowingReference = [setup, read, recordOf, reference, masked]() {
        if (!reference->known) {
            std::shared_ptr<State> model = setup();
            reference->before = flatFieldsOf(recordOf(*model), masked);
            read(*model);
            reference->after = flatFieldsOf(recordOf(*model), masked);
            reference->known = true;
        }
        return setup();
    };
    return cover<State>(
        operation, setupKnowingReference, read,
        [read, recordOf, reference, masked](State& state, std::size_t, bool) {
            checkReadStoppedBetweenFields(flatFieldsOf(recordOf(state), masked), reference->before,
                                          reference->after);
            read(state);
            checkEqual(flatFieldsOf(recordOf(state), masked), reference->after,
                       "the read made after the failure did not read the tree");
        },
        [recordOf, reference, masked](State& state) {
            checkEqual(flatFieldsOf(recordOf(state), masked), reference->after, "the record did not read the tree");
        });
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
