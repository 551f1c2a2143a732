// Read before every source that winegcc compiles: what Wine's headers lack of the platform's public contracts.
#pragma once

#include <windows.h>

#include <bcrypt.h>
#include <ncrypt.h>

#define CRYPT_IMPL_REMOVABLE 8
#define CRYPT_PRIORITY_BOTTOM 0xFFFFFFFF
#define CRYPT_SGC_ENUM 4
#define PP_CERTCHAIN 9
#define NTE_VALIDATION_FAILED _HRESULT_TYPEDEF_(0x80090032)

#define KDF_LABEL 0xD
#define KDF_CONTEXT 0xE
#define LEGACY_RSAPUBLIC_BLOB TEXT("CAPIPUBLICBLOB")

#define BCRYPT_MAKE_INTERFACE_VERSION(major, minor) \
    { (USHORT)(major), (USHORT)(minor) }
typedef struct _BCRYPT_INTERFACE_VERSION {
    USHORT MajorVersion;
    USHORT MinorVersion;
} BCRYPT_INTERFACE_VERSION;

// Wine has these as text of wchar_t.
#undef NCRYPT_ALGORITHM_GROUP_PROPERTY
#undef NCRYPT_CERTIFICATE_PROPERTY
#undef NCRYPT_KEY_USAGE_PROPERTY
#undef NCRYPT_LENGTH_PROPERTY
#undef NCRYPT_NAME_PROPERTY
#undef NCRYPT_PIN_PROPERTY
#define NCRYPT_ALGORITHM_GROUP_PROPERTY TEXT("Algorithm Group")
#define NCRYPT_CERTIFICATE_PROPERTY TEXT("SmartCardKeyCertificate")
#define NCRYPT_KEY_USAGE_PROPERTY TEXT("Key Usage")
#define NCRYPT_LENGTH_PROPERTY TEXT("Length")
#define NCRYPT_NAME_PROPERTY TEXT("Name")
#define NCRYPT_PIN_PROPERTY TEXT("SmartCardPin")

#define NCRYPTBUFFER_VERSION 0
#define NCRYPT_ALLOW_ALL_USAGES 0x00FFFFFF
#define NCRYPT_ALLOW_DECRYPT_FLAG 1
#define NCRYPT_ALLOW_SIGNING_FLAG 2
#define NCRYPT_ALLOW_EXPORT_FLAG 1
#define NCRYPT_IMPL_HARDWARE_FLAG 1
#define NCRYPT_IMPL_REMOVABLE_FLAG 8
#define NCRYPT_HASH_INTERFACE BCRYPT_HASH_INTERFACE
#define NCRYPT_SIGNATURE_INTERFACE BCRYPT_SIGNATURE_INTERFACE
#define NCRYPT_ASYMMETRIC_ENCRYPTION_INTERFACE BCRYPT_ASYMMETRIC_ENCRYPTION_INTERFACE
#define NCRYPT_HASH_OPERATION BCRYPT_HASH_OPERATION
#define NCRYPT_SIGNATURE_OPERATION BCRYPT_SIGNATURE_OPERATION
#define NCRYPT_ASYMMETRIC_ENCRYPTION_OPERATION BCRYPT_ASYMMETRIC_ENCRYPTION_OPERATION
typedef struct _NCRYPT_SUPPORTED_LENGTHS {
    DWORD dwMinLength;
    DWORD dwMaxLength;
    DWORD dwIncrement;
    DWORD dwDefaultLength;
} NCRYPT_SUPPORTED_LENGTHS;

/// While it lives, a child process starts with the sanitizers' runtime, as another run of the same program has to.
struct SanitizedChildren {
    SanitizedChildren();
    ~SanitizedChildren();
};
