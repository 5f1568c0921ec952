// Decoding and encoding of the PDUs of pdu.h. No state.
#include "rpc/pdu.h"

namespace oriel::rpc {
namespace {

// Reads forward through a PDU. Past the end everything reads as zero, and Complete() is false.
class Reader {
public:
    Reader(const uint8_t* pdu, size_t offset, size_t size, bool bigEndian)
        : m_pdu(pdu), m_at(offset), m_size(size), m_bigEndian(bigEndian) {}

    uint8_t Byte() { return Take(1) ? m_pdu[m_at - 1] : 0; }

    uint16_t Word() {
        if (!Take(2)) return 0;
        const uint8_t* p = m_pdu + m_at - 2;
        return static_cast<uint16_t>(m_bigEndian ? p[0] << 8 | p[1] : p[1] << 8 | p[0]);
    }

    uint32_t Number() {
        const uint32_t first = Word();
        const uint32_t second = Word();
        return m_bigEndian ? first << 16 | second : second << 16 | first;
    }

    RPC_SYNTAX_IDENTIFIER Syntax() {
        RPC_SYNTAX_IDENTIFIER syntax{};
        syntax.SyntaxGUID.Data1 = Number();
        syntax.SyntaxGUID.Data2 = Word();
        syntax.SyntaxGUID.Data3 = Word();
        for (BYTE& byte : syntax.SyntaxGUID.Data4)
            byte = Byte();
        const uint32_t version = Number(); // major in the low half, whatever the byte order
        syntax.SyntaxVersion = {static_cast<uint16_t>(version), static_cast<uint16_t>(version >> 16)};
        return syntax;
    }

    std::string_view Bytes(size_t size) {
        return Take(size) ? std::string_view(reinterpret_cast<const char*>(m_pdu) + m_at - size, size)
                          : std::string_view();
    }

    void Skip(size_t size) { Take(size); }
    void Align(size_t alignment) { Take((alignment - m_at % alignment) % alignment); }
    size_t Left() const { return m_size - m_at; }
    bool Complete() const { return m_complete; }

private:
    bool Take(size_t size) {
        if (!m_complete || size > Left()) return m_complete = false;
        m_at += size;
        return true;
    }

    const uint8_t* m_pdu;
    size_t m_at;
    size_t m_size;
    bool m_bigEndian;
    bool m_complete = true;
};

class Writer {
public:
    explicit Writer(std::span<uint8_t> out) : m_out(out) {}

    void Byte(unsigned value) {
        if (m_at < m_out.size()) m_out[m_at] = static_cast<uint8_t>(value);
        ++m_at;
    }
    void Word(unsigned value) {
        Byte(value & 0xFF);
        Byte(value >> 8);
    }
    void Number(uint32_t value) {
        Word(value & 0xFFFF);
        Word(value >> 16);
    }
    void Syntax(const RPC_SYNTAX_IDENTIFIER& syntax) {
        Number(syntax.SyntaxGUID.Data1);
        Word(syntax.SyntaxGUID.Data2);
        Word(syntax.SyntaxGUID.Data3);
        for (const BYTE byte : syntax.SyntaxGUID.Data4)
            Byte(byte);
        Word(syntax.SyntaxVersion.MajorVersion);
        Word(syntax.SyntaxVersion.MinorVersion);
    }
    void Zeros(size_t count) {
        while (count-- > 0)
            Byte(0);
    }
    void Align(size_t alignment) { Zeros((alignment - m_at % alignment) % alignment); }

    void PduHeader(const Header& header) {
        Byte(header.majorVersion);
        Byte(header.minorVersion);
        Byte(header.type);
        Byte(header.flags);
        Number(header.representation);
        Word(header.fragmentLength);
        Word(header.authLength);
        Number(header.callId);
    }

    // Stores the size of the PDU in its header and returns it; 0 when there was no room.
    size_t Finish() {
        if (m_at > m_out.size() || m_at > 0xFFFF) return 0;
        m_out[8] = static_cast<uint8_t>(m_at & 0xFF);
        m_out[9] = static_cast<uint8_t>(m_at >> 8);
        return m_at;
    }

private:
    std::span<uint8_t> m_out;
    size_t m_at = 0;
};

Reader BodyReader(const uint8_t* pdu, const Header& header) {
    return {pdu, kHeaderSize, header.fragmentLength, header.BigEndian()};
}

} // namespace

bool IsFeatureNegotiation(const RPC_SYNTAX_IDENTIFIER& transfer, uint16_t& features) {
    // 6cb71c2c-9812-4540-, then 8 bytes of feature bits, version 1.
    if (transfer.SyntaxGUID.Data1 != 0x6CB71C2C || transfer.SyntaxGUID.Data2 != 0x9812 ||
        transfer.SyntaxGUID.Data3 != 0x4540 || transfer.SyntaxVersion.MajorVersion != 1)
        return false;
    features = static_cast<uint16_t>(transfer.SyntaxGUID.Data4[0] | transfer.SyntaxGUID.Data4[1] << 8);
    return true;
}

bool DecodeHeader(const uint8_t* pdu, Header& header) {
    header.majorVersion = pdu[0];
    header.minorVersion = pdu[1];
    header.type = pdu[2];
    header.flags = pdu[3];
    memcpy(&header.representation, pdu + 4, 4);
    Reader reader(pdu, 8, kHeaderSize, header.BigEndian());
    header.fragmentLength = reader.Word();
    header.authLength = reader.Word();
    header.callId = reader.Number();
    return header.fragmentLength >= kHeaderSize && header.authLength <= header.fragmentLength - kHeaderSize;
}

bool DecodeCallHeader(const uint8_t* pdu, const Header& header, CallHeader& call) {
    Reader reader = BodyReader(pdu, header);
    call.allocationHint = reader.Number();
    call.contextId = reader.Word();
    call.procedure = reader.Word();
    if ((header.flags & kObjectUuid) != 0 && header.type == kRequest) reader.Skip(kObjectSize);
    return reader.Complete();
}

bool DecodeFault(const uint8_t* pdu, const Header& header, CallHeader& call, uint32_t& status) {
    Reader reader = BodyReader(pdu, header);
    call.allocationHint = reader.Number();
    call.contextId = reader.Word();
    call.procedure = reader.Word();
    status = reader.Number();
    return reader.Complete();
}

bool DecodeBind(const uint8_t* pdu, const Header& header, Bind& bind) {
    Reader reader = BodyReader(pdu, header);
    bind.largestSent = reader.Word();
    bind.largestReceived = reader.Word();
    bind.group = reader.Number();
    const unsigned count = reader.Byte();
    reader.Skip(3);
    bind.elements.clear();
    for (unsigned i = 0; i < count && reader.Complete(); ++i) {
        ContextElement& element = bind.elements.emplace_back();
        element.id = reader.Word();
        const unsigned transfers = reader.Byte();
        reader.Skip(1);
        element.abstractSyntax = reader.Syntax();
        for (unsigned j = 0; j < transfers && reader.Complete(); ++j)
            element.transfers.push_back(reader.Syntax());
    }
    return reader.Complete();
}

bool DecodeBindAck(const uint8_t* pdu, const Header& header, BindAck& ack) {
    Reader reader = BodyReader(pdu, header);
    ack.largestSent = reader.Word();
    ack.largestReceived = reader.Word();
    ack.group = reader.Number();
    const std::string_view port = reader.Bytes(reader.Word());
    ack.port = port.substr(0, port.find('\0'));
    reader.Align(4);
    const unsigned count = reader.Byte();
    reader.Skip(3);
    ack.results.clear();
    for (unsigned i = 0; i < count && reader.Complete(); ++i) {
        ContextResult& result = ack.results.emplace_back();
        result.result = reader.Word();
        result.reason = reader.Word();
        result.transfer = reader.Syntax();
    }
    return reader.Complete();
}

bool DecodeBindNak(const uint8_t* pdu, const Header& header, uint16_t& reason) {
    Reader reader = BodyReader(pdu, header);
    reason = reader.Word();
    return reader.Complete();
}

size_t EncodeBind(std::span<uint8_t> out, Header header, const Bind& bind) {
    Writer writer(out);
    writer.PduHeader(header);
    writer.Word(bind.largestSent);
    writer.Word(bind.largestReceived);
    writer.Number(bind.group);
    writer.Byte(static_cast<unsigned>(bind.elements.size()));
    writer.Zeros(3);
    for (const ContextElement& element : bind.elements) {
        writer.Word(element.id);
        writer.Byte(static_cast<unsigned>(element.transfers.size()));
        writer.Zeros(1);
        writer.Syntax(element.abstractSyntax);
        for (const RPC_SYNTAX_IDENTIFIER& transfer : element.transfers)
            writer.Syntax(transfer);
    }
    return writer.Finish();
}

size_t EncodeBindAck(std::span<uint8_t> out, Header header, const BindAck& ack) {
    Writer writer(out);
    writer.PduHeader(header);
    writer.Word(ack.largestSent);
    writer.Word(ack.largestReceived);
    writer.Number(ack.group);
    if (ack.port.empty()) {
        writer.Word(0);
    } else {
        writer.Word(static_cast<unsigned>(ack.port.size() + 1));
        for (const char c : ack.port)
            writer.Byte(static_cast<uint8_t>(c));
        writer.Byte(0);
    }
    writer.Align(4);
    writer.Byte(static_cast<unsigned>(ack.results.size()));
    writer.Zeros(3);
    for (const ContextResult& result : ack.results) {
        writer.Word(result.result);
        writer.Word(result.reason);
        writer.Syntax(result.transfer);
    }
    return writer.Finish();
}

size_t EncodeBindNak(std::span<uint8_t> out, Header header, uint16_t reason) {
    Writer writer(out);
    writer.PduHeader(header);
    writer.Word(reason);
    writer.Byte(1); // the supported versions: 5.0 only
    writer.Byte(5);
    writer.Byte(0);
    writer.Align(4);
    return writer.Finish();
}

size_t EncodeFault(std::span<uint8_t> out, Header header, const CallHeader& call, uint32_t status) {
    Writer writer(out);
    writer.PduHeader(header);
    writer.Number(call.allocationHint);
    writer.Word(call.contextId);
    writer.Word(0); // no cancel
    writer.Number(status);
    writer.Zeros(4);
    return writer.Finish();
}

} // namespace oriel::rpc
