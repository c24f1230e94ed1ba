#include <kest/metadata/MirroredObject.h>

namespace Kest::MetaData {

PartiallySerializableInterface::~PartiallySerializableInterface() = default;

ReflectorBase::ReflectorBase(MirroredObject* parent, std::string name, bool required)
    : parent_(parent), name_(std::move(name)), required_(required) {
    if (parent_ != nullptr) parent_->registerField(this);
}

ReflectorBase::ReflectorBase(MirroredObject* parent, const ReflectorBase& other)
    : PartiallySerializableInterface(other),
      parent_(parent),
      name_(other.name_),
      required_(other.required_),
      initialized_(other.initialized_) {
    if (parent_ != nullptr) parent_->registerField(this);
}

ReflectorBase::~ReflectorBase() {
    if (parent_ != nullptr) parent_->unregisterField(this);
}

ReflectorBase& ReflectorBase::operator=(const ReflectorBase& other) {
    if (this != &other) {
        name_ = other.name_;
        required_ = other.required_;
        initialized_ = other.initialized_;
    }
    return *this;
}

void ReflectorBase::throwIfUninited(const std::string& where) const {
    if (!initialized_) {
        throw MetaDataException(where + ": field '" + name_ + "' is not initialized");
    }
}

MirroredObject::~MirroredObject() {
    // Fields are members of the derived record and are destroyed before this
    // base; any left (fields of another lifetime) must not point back at us.
    for (ReflectorBase* f = firstField_; f != nullptr;) {
        ReflectorBase* next = f->nextField_;
        f->parent_ = nullptr;
        f->nextField_ = nullptr;
        f = next;
    }
}

void MirroredObject::registerField(ReflectorBase* field) noexcept {
    field->nextField_ = nullptr;
    if (lastField_ == nullptr) {
        firstField_ = field;
    } else {
        lastField_->nextField_ = field;
    }
    lastField_ = field;
}

void MirroredObject::unregisterField(ReflectorBase* field) noexcept {
    // Fields die in reverse declaration order, so the one leaving is usually the last.
    ReflectorBase* previous = nullptr;
    for (ReflectorBase* f = firstField_; f != nullptr; previous = f, f = f->nextField_) {
        if (f != field) continue;
        if (previous == nullptr) {
            firstField_ = f->nextField_;
        } else {
            previous->nextField_ = f->nextField_;
        }
        if (lastField_ == f) lastField_ = previous;
        return;
    }
}

void MirroredObject::copyToMetaData(Element& tree) const {
    for (const ReflectorBase* f = firstField_; f != nullptr; f = f->nextField_) {
        f->copyToMetaData(tree);
    }
}

void MirroredObject::copyFromMetaData(const Element& tree) {
    for (ReflectorBase* f = firstField_; f != nullptr; f = f->nextField_) {
        f->copyFromMetaData(tree);
    }
}

}  // namespace Kest::MetaData
