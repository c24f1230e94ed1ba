#pragma once

// Reflective records: a MirroredObject is a record whose fields are reflector
// objects (ReflectorBase). Each field knows its name, whether it is required
// and whether it holds a value, and copies itself to and from a metadata tree.
// A record copies its fields in declaration order.
//
// Fields register themselves with their record when they are constructed. A
// record that is copied must register the copy's fields with the copy: records
// therefore define their copy constructor by constructing each field with the
// rebinding constructor `Field(this, other.field)`; the plain copy constructor
// of a field is deleted so that a forgotten one does not compile.
//
// Not thread-safe: a record is written by one thread, then shared read-only.

#include <kest/metadata/Api.h>
#include <kest/metadata/Element.h>

#include <string>
#include <utility>

namespace Kest::MetaData {

class MirroredObject;

// The common base of records and reflectors: something that copies itself to
// and from a metadata tree.
class KEST_CORE_API PartiallySerializableInterface {
public:
    virtual ~PartiallySerializableInterface();
    virtual void copyToMetaData(Element& tree) const = 0;
    virtual void copyFromMetaData(const Element& tree) = 0;

protected:
    PartiallySerializableInterface() = default;
    PartiallySerializableInterface(const PartiallySerializableInterface&) = default;
    PartiallySerializableInterface& operator=(const PartiallySerializableInterface&) = default;
};

// State shared by every reflector: the field's name, its record, whether it is
// required and whether it holds a value.
class KEST_CORE_API ReflectorBase : public PartiallySerializableInterface {
public:
    ReflectorBase(MirroredObject* parent, std::string name, bool required);
    ~ReflectorBase() override;

    ReflectorBase(const ReflectorBase&) = delete;

    // Copies name, required flag and initialised flag; the record the field
    // belongs to stays the same. Strong guarantee: if memory runs out
    // (copying the name), the field is unchanged.
    ReflectorBase& operator=(const ReflectorBase& other);

    void init() noexcept { initialized_ = true; }
    void uninit() noexcept { initialized_ = false; }
    bool initialized() const noexcept { return initialized_; }
    bool isRequired() const noexcept { return required_; }
    const std::string& name() const noexcept { return name_; }
    MirroredObject* parent() const noexcept { return parent_; }

    // Throws MetaDataException, naming `where`, when the field holds no value
    // (std::bad_alloc instead if memory runs out while its text is built).
    void throwIfUninited(const std::string& where) const;

protected:
    // Copy of `other` (name, flags) registered with `parent` instead of
    // `other`'s record.
    ReflectorBase(MirroredObject* parent, const ReflectorBase& other);

    // Exchanges name and flags with `other`; each stays with its record.
    // The last step of the fields' copy-and-swap assignments.
    void swapState(ReflectorBase& other) noexcept {
        name_.swap(other.name_);
        std::swap(required_, other.required_);
        std::swap(initialized_, other.initialized_);
    }

private:
    friend class MirroredObject;

    MirroredObject* parent_;
    ReflectorBase* nextField_ = nullptr;  // next field of parent_, in declaration order
    std::string name_;
    bool required_;
    bool initialized_ = false;
};

// A record: copies its registered fields to and from a tree, in the order in
// which they were constructed.
class KEST_CORE_API MirroredObject : public PartiallySerializableInterface {
public:
    MirroredObject() noexcept = default;
    ~MirroredObject() override;

    // A copy starts with no fields: the copy's own fields register with it.
    MirroredObject(const MirroredObject&) noexcept : PartiallySerializableInterface() {}
    // Assignment leaves the field list alone; the derived record assigns its fields.
    MirroredObject& operator=(const MirroredObject&) noexcept { return *this; }

    // Each initialised field writes itself into `tree` under its name. Basic
    // guarantee: if memory runs out, `tree` is a valid tree holding the
    // fields written before the failure, the failing one possibly in part;
    // the record is unchanged.
    void copyToMetaData(Element& tree) const override;
    // Each field reads itself from `tree`; a field whose element is missing or
    // malformed falls back as its reflector describes. The library's fields
    // never throw, and a field whose read runs out of memory falls back in
    // the same way (see Reflector.h): the other fields read as usual.
    void copyFromMetaData(const Element& tree) override;

    // The fields in declaration order; for inspection and tests.
    template <class F>
    void forEachField(F&& visit) const {
        for (const ReflectorBase* f = firstField_; f != nullptr; f = f->nextField_) visit(*f);
    }

private:
    friend class ReflectorBase;
    void registerField(ReflectorBase* field) noexcept;
    void unregisterField(ReflectorBase* field) noexcept;

    // An intrusive list, so that registering a field never allocates.
    ReflectorBase* firstField_ = nullptr;
    ReflectorBase* lastField_ = nullptr;
};

}  // namespace Kest::MetaData
