#include "TfLiteModel.h"

#include <flatbuffers/flatbuffers.h>

#include <algorithm>
#include <stdexcept>

namespace talcflow {
namespace tflite {
namespace {

using flatbuffers::Offset;
using flatbuffers::String;
using flatbuffers::Table;
using flatbuffers::Vector;
using flatbuffers::Verifier;

// Field k of a table lives at vtable slot 4 + 2k.
constexpr flatbuffers::voffset_t field(int k) { return static_cast<flatbuffers::voffset_t>(4 + 2 * k); }

// Option tables of the BuiltinOptions union that carry what the engines need.
constexpr uint8_t kConcatenationOptions = 10;
constexpr uint8_t kFullyConnectedOptions = 8;
constexpr uint8_t kAddOptions = 11;
constexpr uint8_t kMulOptions = 21;
constexpr uint8_t kSubOptions = 28;
constexpr uint8_t kDivOptions = 29;

using Tables = Vector<Offset<Table>>;

// Verification of the few tables and fields read below; the schema's other fields are skipped
// unread, so they need no check.
class Checker {
public:
    explicit Checker(Verifier& v) : v(v) {}

    template <typename T>
    bool scalar(const Table* t, int k) {
        return t->VerifyField<T>(v, field(k), sizeof(T));
    }
    template <typename T>
    bool vector(const Table* t, int k) {
        return t->VerifyOffset(v, field(k)) && v.VerifyVector(t->GetPointer<const Vector<T>*>(field(k)));
    }
    bool string(const Table* t, int k) {
        return t->VerifyOffset(v, field(k)) && v.VerifyString(t->GetPointer<const String*>(field(k)));
    }
    template <typename Each>
    bool tables(const Table* t, int k, Each each) {
        if (!t->VerifyOffset(v, field(k))) return false;
        const Tables* list = t->GetPointer<const Tables*>(field(k));
        if (list == nullptr) return true;
        if (!v.VerifyVector(list)) return false;
        for (flatbuffers::uoffset_t i = 0; i < list->size(); ++i) {
            if (!each(list->Get(i))) return false;
        }
        return true;
    }
    template <typename Fields>
    bool table(const Table* t, Fields fields) {
        return t->VerifyTableStart(v) && fields(t) && v.EndTable();
    }
    bool child(const Table* t, int k) { return t->VerifyOffset(v, field(k)); }

    Verifier& v;
};

bool verifyOptions(Checker& c, const Table* options, uint8_t type) {
    return c.table(options, [&](const Table* t) {
        switch (type) {
            case kFullyConnectedOptions:
                return c.scalar<int8_t>(t, 0) && c.scalar<int8_t>(t, 1) && c.scalar<uint8_t>(t, 2);
            case kConcatenationOptions: return c.scalar<int32_t>(t, 0) && c.scalar<int8_t>(t, 1);
            case kAddOptions:
            case kMulOptions:
            case kSubOptions:
            case kDivOptions: return c.scalar<int8_t>(t, 0);
            default: return true;
        }
    });
}

bool verifyModel(Checker& c, const Table* model) {
    return c.table(model, [&](const Table* m) {
        const bool codes = c.tables(m, 1, [&](const Table* code) {
            return c.table(code, [&](const Table* t) {
                return c.scalar<int8_t>(t, 0) && c.string(t, 1) && c.scalar<int32_t>(t, 3);
            });
        });
        const bool buffers = c.tables(m, 4, [&](const Table* buffer) {
            return c.table(buffer, [&](const Table* t) { return c.vector<uint8_t>(t, 0); });
        });
        const bool subgraphs = c.tables(m, 2, [&](const Table* subgraph) {
            return c.table(subgraph, [&](const Table* s) {
                const bool tensors = c.tables(s, 0, [&](const Table* tensor) {
                    return c.table(tensor, [&](const Table* t) {
                        return c.vector<int32_t>(t, 0) && c.scalar<int8_t>(t, 1) && c.scalar<uint32_t>(t, 2) &&
                               c.string(t, 3);
                    });
                });
                const bool operators = c.tables(s, 3, [&](const Table* op) {
                    return c.table(op, [&](const Table* t) {
                        if (!(c.scalar<uint32_t>(t, 0) && c.vector<int32_t>(t, 1) && c.vector<int32_t>(t, 2) &&
                              c.scalar<uint8_t>(t, 3) && c.child(t, 4)))
                            return false;
                        const Table* options = t->GetPointer<const Table*>(field(4));
                        return options == nullptr || verifyOptions(c, options, t->GetField<uint8_t>(field(3), 0));
                    });
                });
                return tensors && operators && c.vector<int32_t>(s, 1) && c.vector<int32_t>(s, 2);
            });
        });
        return codes && buffers && subgraphs;
    });
}

std::vector<int32_t> ints(const Table* t, int k) {
    const auto* v = t->GetPointer<const Vector<int32_t>*>(field(k));
    return v == nullptr ? std::vector<int32_t>() : std::vector<int32_t>(v->begin(), v->end());
}

std::string text(const Table* t, int k) {
    const auto* s = t->GetPointer<const String*>(field(k));
    return s == nullptr ? std::string() : s->str();
}

void readOptions(const Table* op, Operator& out) {
    const Table* options = op->GetPointer<const Table*>(field(4));
    if (options == nullptr) return;
    switch (op->GetField<uint8_t>(field(3), 0)) {
        case kFullyConnectedOptions:
            out.activation = options->GetField<int8_t>(field(0), 0);
            out.weightsFormat = options->GetField<int8_t>(field(1), 0);
            out.keepNumDims = options->GetField<uint8_t>(field(2), 0) != 0;
            break;
        case kConcatenationOptions:
            out.axis = options->GetField<int32_t>(field(0), 0);
            out.activation = options->GetField<int8_t>(field(1), 0);
            break;
        case kAddOptions:
        case kMulOptions:
        case kSubOptions:
        case kDivOptions:
            out.activation = options->GetField<int8_t>(field(0), 0);
            break;
        default:
            break;
    }
}

void checkIndices(const std::vector<int32_t>& indices, size_t tensorCount, bool optional, const char* what) {
    for (int32_t index : indices) {
        if (optional && index == kNoTensor) continue;
        if (index < 0 || static_cast<size_t>(index) >= tensorCount)
            throw std::runtime_error(std::string("tensor index ") + std::to_string(index) + " of " + what +
                                     " is out of range");
    }
}

}  // namespace

Model readModel(const std::vector<uint8_t>& bytes) {
    Verifier verifier(bytes.data(), bytes.size());
    Checker checker(verifier);
    if (bytes.size() < 8 || !flatbuffers::BufferHasIdentifier(bytes.data(), "TFL3"))
        throw std::runtime_error("not a TensorFlow Lite model");
    const Table* root = flatbuffers::GetRoot<Table>(bytes.data());
    if (!verifier.VerifyOffset(0) || !verifyModel(checker, root))
        throw std::runtime_error("malformed TensorFlow Lite flatbuffer");

    const auto* subgraphs = root->GetPointer<const Tables*>(field(2));
    if (subgraphs == nullptr || subgraphs->size() == 0) throw std::runtime_error("the model has no graph");
    const auto* buffers = root->GetPointer<const Tables*>(field(4));
    const auto* codes = root->GetPointer<const Tables*>(field(1));
    const Table* graph = subgraphs->Get(0);

    Model model;
    if (const auto* tensors = graph->GetPointer<const Tables*>(field(0))) {
        for (const Table* t : *tensors) {
            Tensor tensor;
            tensor.shape = ints(t, 0);
            tensor.type = t->GetField<int8_t>(field(1), kTensorFloat32);
            tensor.name = text(t, 3);
            const uint32_t buffer = t->GetField<uint32_t>(field(2), 0);
            if (buffers == nullptr || buffer >= buffers->size())
                throw std::runtime_error("tensor \"" + tensor.name + "\" names a missing buffer");
            if (const auto* data = buffers->Get(buffer)->GetPointer<const Vector<uint8_t>*>(field(0))) {
                if (data->size() > 0) {
                    tensor.data = data->data();
                    tensor.bytes = data->size();
                }
            }
            model.tensors.push_back(std::move(tensor));
        }
    }
    if (const auto* operators = graph->GetPointer<const Tables*>(field(3))) {
        for (const Table* o : *operators) {
            Operator op;
            const uint32_t codeIndex = o->GetField<uint32_t>(field(0), 0);
            if (codes == nullptr || codeIndex >= codes->size())
                throw std::runtime_error("an operator names a missing operator code");
            const Table* code = codes->Get(codeIndex);
            // Newer writers put codes above 127 in a second field and keep a placeholder in the first.
            op.builtin = std::max<int32_t>(code->GetField<int8_t>(field(0), 0), code->GetField<int32_t>(field(3), 0));
            op.customCode = text(code, 1);
            op.inputs = ints(o, 1);
            op.outputs = ints(o, 2);
            readOptions(o, op);
            checkIndices(op.inputs, model.tensors.size(), true, "an operator input");
            checkIndices(op.outputs, model.tensors.size(), false, "an operator output");
            model.operators.push_back(std::move(op));
        }
    }
    model.inputs = ints(graph, 1);
    model.outputs = ints(graph, 2);
    checkIndices(model.inputs, model.tensors.size(), false, "the graph inputs");
    checkIndices(model.outputs, model.tensors.size(), false, "the graph outputs");
    return model;
}

std::string operatorName(int32_t builtin) {
    switch (builtin) {
        case kAdd: return "ADD";
        case kConcatenation: return "CONCATENATION";
        case kFullyConnected: return "FULLY_CONNECTED";
        case kLogistic: return "LOGISTIC";
        case kMul: return "MUL";
        case kReshape: return "RESHAPE";
        case kTanh: return "TANH";
        case kCustom: return "CUSTOM";
        case kSub: return "SUB";
        case kDiv: return "DIV";
        case kMaximum: return "MAXIMUM";
        case kMinimum: return "MINIMUM";
        default: return "operator " + std::to_string(builtin);
    }
}

std::string activationName(int8_t activation) {
    switch (activation) {
        case kActivationNone: return "NONE";
        case kActivationRelu: return "RELU";
        case kActivationReluN1To1: return "RELU_N1_TO_1";
        case kActivationRelu6: return "RELU6";
        case kActivationTanh: return "TANH";
        case kActivationSignBit: return "SIGN_BIT";
        default: return "activation " + std::to_string(activation);
    }
}

size_t elementCount(const Tensor& tensor) {
    size_t n = 1;
    for (int32_t d : tensor.shape) n *= static_cast<size_t>(d < 0 ? 0 : d);
    return n;
}

}  // namespace tflite
}  // namespace talcflow
