#include "loader/common/messages.h"

#include "loader/common/error_codes.h"

namespace Common {
namespace Messages {

const char16_t* const FILE_READ = u"Error durante la lectura del archivo.";
const char16_t* const FILE_EOF = u"Se alcanzó el error del archivo.";
const char16_t* const FILE_WRITE = u"Error durante la escritura en el archivo.";
const char16_t* const FILE_DISK_FULL = u"El disco está lleno.";
const char16_t* const FILE_SEEK = u"Error durante la búsqueda en el archivo.";
const char16_t* const FILE_NO_MEMORY = u"No hay memoria suficiente para completar la operación.";
const char16_t* const FILE_OPEN = u"Error durante la apertura del archivo.";
const char16_t* const FILE_DELETE = u"Error durante la eliminación del archivo.";
const char16_t* const FILE_RENAME = u"Error durante el cambio de nombre del archivo.";
const char16_t* const FILE_CREATE = u"Error durante la creación del archivo.";
const char16_t* const FILE_READ_ONLY = u"El archivo es de sólo lectura.";
const char16_t* const FILE_CORRUPT = u"El archivo está dañado.";
const char16_t* const FILE_UNSUPPORTED = u"La operación no es compatible.";
const char16_t* const FILE_CANCELLED = u"Cancelado.";
const char16_t* const FILE_BUSY = u"El dispositivo está ocupado.";
const char16_t* const FILE_NOT_FOUND = u"El archivo especificado no existe.";
const char16_t* const FILE_EXISTS = u"El archivo (carpeta) ya existe.";
const char16_t* const FILE_ACCESS_DENIED = u"Acceso al archivo denegado.";
const char16_t* const FILE_LOCK = u"Error al bloquear el archivo.";
const char16_t* const FILE_BACKUP = u"Se ha producido un error al realizar la copia de seguridad.";
const char16_t* const FILE_DECRYPT = u"Se produjo un error durante el descifrado.";

const char16_t* const RESIZER_NOT_ENOUGH_MEMORY = u"Memoria insuficiente";
const char16_t* const RESIZER_READ_ERROR = u"Error de lectura";
const char16_t* const RESIZER_WRITE_ERROR = u"Error de escritura";
const char16_t* const RESIZER_INVALID_FILE_SYSTEM = u"Formato no válido";
const char16_t* const RESIZER_INVALID_PARTITION_SIZE = u"Tamaño de partición no válido";
const char16_t* const RESIZER_FORMAT_IMPOSSIBLE = u"Formato imposible";
const char16_t* const RESIZER_RESIZE_IMPOSSIBLE = u"Imposible redimensionar";
const char16_t* const RESIZER_UNABLE_TO_SET_VOLUME_LABEL = u"No se puede configurar la etiqueta de volumen";
const char16_t* const RESIZER_UNSUPPORTED_FS_VERSION = u"Versión de sistema de archivo no compatible";
const char16_t* const RESIZER_CORRUPT_FAT = u"FAT corrupta";
const char16_t* const RESIZER_CORRUPT_DIRECTORY = u"Directorio corrupto";
const char16_t* const RESIZER_INVALID_FILE_SIZE = u"Tamaño de archivo no válido";
const char16_t* const RESIZER_UNSUPPORTED_FS = u"Sistema de archivos incompatible";
const char16_t* const RESIZER_CORRUPT_GROUP_DESCRIPTOR = u"El descriptor del grupo está dañado.";
const char16_t* const RESIZER_CORRUPT_INODE = u"I-nodo corrupto";
const char16_t* const RESIZER_INCONSISTENT_LINK_COUNT = u"Cuenta de enlace incompatible";
const char16_t* const RESIZER_INVALID_BLOCK_LIST = u"Lista de bloque no válido";
const char16_t* const RESIZER_DISK_FULL = u"El disco está completo";
const char16_t* const RESIZER_CORRUPT_BLOCK_BITMAP = u"Mapa de bits de bloque corrupto";
const char16_t* const RESIZER_CORRUPT_INODE_BITMAP = u"Mapa de bits de i-nodo corrupto";
const char16_t* const RESIZER_CORRUPT_MFT_BITMAP = u"Mapa de bit de MFT corrupto";
const char16_t* const RESIZER_CORRUPT_FILE_RECORD = u"Registro de archivo corrupto";
const char16_t* const RESIZER_INVALID_FILE_REFERENCE = u"Referencia de archivo no válida";
const char16_t* const RESIZER_CORRUPT_ATTRIBUTE_LIST = u"Lista de atributos corrupta";
const char16_t* const RESIZER_CORRUPT_RUN_LIST = u"Lista de ejecutables corrupta";
const char16_t* const RESIZER_CORRUPT_NODE = u"Nodo corrupto";
const char16_t* const RESIZER_UNFINISHED_TRANSACTIONS = u"El diario contiene transacciones incompletas";
const char16_t* const RESIZER_UNSUPPORTED_IMAGE_VERSION = u"El archivo de copia de seguridad fue creado por la nueva versión de Morvane Programa de prueba de";
const char16_t* const RESIZER_CORRUPT_IMAGE = u"El archivo es corrupto";
const char16_t* const RESIZER_SNAPSHOT_ERROR = u"No se puede crear la instantánea del volumen";
const char16_t* const RESIZER_CANCELED = u"Operación cancelada por el usuario";
const char16_t* const RESIZER_BAD_BLOCKS = u"No se puede redimensionar una partición con bloques dañados";
const char16_t* const RESIZER_MERGE_IMPOSSIBLE = u"Imposible combinar";
const char16_t* const RESIZER_CORRUPT_INDEX = u"Índice corrupto";
const char16_t* const RESIZER_LIMIT_OF_32_BIT = u"El sistema de archivos es demasiado grande para la versión de 32 bits.";
const char16_t* const RESIZER_ENCRYPTION_ERROR = u"El cifrado ha fallado.";
const char16_t* const RESIZER_DEDUP_INVALID = u"Los archivos comprimidos deduplicados no son compatibles.";
const char16_t* const RESIZER_DISK_QUOTA_OVERFLOW = u"Se ha producido un desbordamiento de la capacidad límite.";
const char16_t* const RESIZER_NOTHING_TO_BACKUP = u"No se seleccionó nada para incluir en la copia de seguridad.";

const char16_t* const DISK_LOAD_ERROR = u"La imagen tiene formato desconocido o está corrupta.";
const char16_t* const DISK_INVALID_PARAMETER = u"Uno de los parámetros tiene un valor no válido.";
const char16_t* const DISK_UNSUPPORTED = u"El tipo de imagen no es compatible.";
const char16_t* const DISK_BAD_BUFFER_SIZE = u"Tamaño de búfer defectuoso.";
const char16_t* const DISK_BUFFER_TOO_SMALL = u"El tamaño de búfer asignado es más pequeño que el necesario.";
const char16_t* const DISK_NOT_READY = u"El dispositivo no está listo.";
const char16_t* const DISK_DEVICE_ERROR = u"Error en el dispositivo.";
const char16_t* const DISK_WRITE_PROTECTED = u"Protegido contra escritura.";
const char16_t* const DISK_OUT_OF_RESOURCES = u"Sin recursos.";
const char16_t* const DISK_VOLUME_CORRUPTED = u"El volumen está corrupto.";
const char16_t* const DISK_VOLUME_FULL = u"El volumen está completo.";
const char16_t* const DISK_NO_MEDIA = u"No hay medios.";
const char16_t* const DISK_MEDIA_CHANGED = u"Los medios han cambiado.";
const char16_t* const DISK_NOT_FOUND = u"No se pudo encontrar.";
const char16_t* const DISK_ACCESS_DENIED = u"Acceso denegado.";
const char16_t* const DISK_NO_RESPONSE = u"No hay respuesta.";
const char16_t* const DISK_NO_MAPPING = u"No hay asignación.";
const char16_t* const DISK_TIMEOUT = u"Tiempo de espera agotado.";
const char16_t* const DISK_NOT_STARTED = u"No iniciado.";
const char16_t* const DISK_ALREADY_STARTED = u"Ya iniciado.";
const char16_t* const DISK_ABORTED = u"Se ha abortado la operación.";
const char16_t* const DISK_ICMP_ERROR = u"Error ICMP.";
const char16_t* const DISK_TFTP_ERROR = u"Error TFTP.";
const char16_t* const DISK_PROTOCOL_ERROR = u"Error de protocolo.";
const char16_t* const DISK_WARN_UNKNOWN_GLYPH = u"Advertencia: glifo desconocido.";
const char16_t* const DISK_WARN_DELETE_FAILURE = u"Advertencia: error de eliminación.";
const char16_t* const DISK_WARN_WRITE_FAILURE = u"Advertencia: error de escritura.";
const char16_t* const DISK_WARN_BUFFER_TOO_SMALL = u"Advertencia: el búfer es demasiado pequeño.";
const char16_t* const DISK_UNKNOWN_STATUS = u"Error desconocido.";
const char16_t* const DISK_BAD_OPERATION = u"Operación de disco no válida.";
const char16_t* const DISK_INDEX_RANGE = u"El índice está fuera de rango.";
const char16_t* const DISK_OPEN = u"Error al abrir el disco.";

const char16_t* const EFI_INTERNAL = u"Error interno de EFI.";
const char16_t* const KERNEL_CORRUPT = u"El kernel está dañado.";
const char16_t* const KERNEL_UNSUPPORTED = u"Versión de kernel no compatible.";
const char16_t* const VIDEO_NOT_DETECTED = u"NO fue posible detectar el modo de salida gráfica.";
const char16_t* const VIDEO_NOT_LINEAR = u"El modo de vídeo actual no es compatible con framebuffer lineal.";
const char16_t* const VIDEO_BAD_FRAMEBUFFER = u"Parámetros de framebuffer de vídeo no válidos.";
const char16_t* const VIDEO_BAD_PIXEL_FORMAT = u"Un formato de píxel no compatible.";

const char16_t* DiskStatusText(std::uint32_t code) {
    switch (code) {
        case Common::DISK_LOAD_ERROR: return DISK_LOAD_ERROR;
        case Common::DISK_INVALID_PARAMETER: return DISK_INVALID_PARAMETER;
        case Common::DISK_UNSUPPORTED: return DISK_UNSUPPORTED;
        case Common::DISK_BAD_BUFFER_SIZE: return DISK_BAD_BUFFER_SIZE;
        case Common::DISK_BUFFER_TOO_SMALL: return DISK_BUFFER_TOO_SMALL;
        case Common::DISK_NOT_READY: return DISK_NOT_READY;
        case Common::DISK_DEVICE_ERROR: return DISK_DEVICE_ERROR;
        case Common::DISK_WRITE_PROTECTED: return DISK_WRITE_PROTECTED;
        case Common::DISK_OUT_OF_RESOURCES: return DISK_OUT_OF_RESOURCES;
        case Common::DISK_VOLUME_CORRUPTED: return DISK_VOLUME_CORRUPTED;
        case Common::DISK_VOLUME_FULL: return DISK_VOLUME_FULL;
        case Common::DISK_NO_MEDIA: return DISK_NO_MEDIA;
        case Common::DISK_MEDIA_CHANGED: return DISK_MEDIA_CHANGED;
        case Common::DISK_NOT_FOUND: return DISK_NOT_FOUND;
        case Common::DISK_ACCESS_DENIED: return DISK_ACCESS_DENIED;
        case Common::DISK_NO_RESPONSE: return DISK_NO_RESPONSE;
        case Common::DISK_NO_MAPPING: return DISK_NO_MAPPING;
        case Common::DISK_TIMEOUT: return DISK_TIMEOUT;
        case Common::DISK_NOT_STARTED: return DISK_NOT_STARTED;
        case Common::DISK_ALREADY_STARTED: return DISK_ALREADY_STARTED;
        case Common::DISK_ABORTED: return DISK_ABORTED;
        case Common::DISK_ICMP_ERROR: return DISK_ICMP_ERROR;
        case Common::DISK_TFTP_ERROR: return DISK_TFTP_ERROR;
        case Common::DISK_PROTOCOL_ERROR: return DISK_PROTOCOL_ERROR;
        case Common::DISK_WARN_UNKNOWN_GLYPH: return DISK_WARN_UNKNOWN_GLYPH;
        case Common::DISK_WARN_DELETE_FAILURE: return DISK_WARN_DELETE_FAILURE;
        case Common::DISK_WARN_WRITE_FAILURE: return DISK_WARN_WRITE_FAILURE;
        case Common::DISK_WARN_BUFFER_TOO_SMALL: return DISK_WARN_BUFFER_TOO_SMALL;
        case Common::DISK_UNKNOWN_STATUS: return DISK_UNKNOWN_STATUS;
        case Common::DISK_BAD_OPERATION: return DISK_BAD_OPERATION;
        case Common::DISK_INDEX_RANGE: return DISK_INDEX_RANGE;
        case Common::DISK_OPEN: return DISK_OPEN;
        default: return DISK_UNKNOWN_STATUS;
    }
}

}  // namespace Messages
}  // namespace Common
