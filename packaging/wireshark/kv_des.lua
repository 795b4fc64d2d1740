-- DES decryption of the discovery reply's account field. Bits are tables of 0 and 1, most significant first, so this
-- runs in the Lua of every Wireshark version.
local initial = {58, 50, 42, 34, 26, 18, 10, 2, 60, 52, 44, 36, 28, 20, 12, 4, 62, 54, 46, 38, 30, 22, 14, 6, 64, 56,
                 48, 40, 32, 24, 16, 8, 57, 49, 41, 33, 25, 17, 9, 1, 59, 51, 43, 35, 27, 19, 11, 3, 61, 53, 45, 37,
                 29, 21, 13, 5, 63, 55, 47, 39, 31, 23, 15, 7}
local final = {40, 8, 48, 16, 56, 24, 64, 32, 39, 7, 47, 15, 55, 23, 63, 31, 38, 6, 46, 14, 54, 22, 62, 30, 37, 5, 45,
               13, 53, 21, 61, 29, 36, 4, 44, 12, 52, 20, 60, 28, 35, 3, 43, 11, 51, 19, 59, 27, 34, 2, 42, 10, 50, 18,
               58, 26, 33, 1, 41, 9, 49, 17, 57, 25}
local choice1 = {57, 49, 41, 33, 25, 17, 9, 1, 58, 50, 42, 34, 26, 18, 10, 2, 59, 51, 43, 35, 27, 19, 11, 3, 60, 52,
                 44, 36, 63, 55, 47, 39, 31, 23, 15, 7, 62, 54, 46, 38, 30, 22, 14, 6, 61, 53, 45, 37, 29, 21, 13, 5,
                 28, 20, 12, 4}
local choice2 = {14, 17, 11, 24, 1, 5, 3, 28, 15, 6, 21, 10, 23, 19, 12, 4, 26, 8, 16, 7, 27, 20, 13, 2, 41, 52, 31,
                 37, 47, 55, 30, 40, 51, 45, 33, 48, 44, 49, 39, 56, 34, 53, 46, 42, 50, 36, 29, 32}
local expansion = {32, 1, 2, 3, 4, 5, 4, 5, 6, 7, 8, 9, 8, 9, 10, 11, 12, 13, 12, 13, 14, 15, 16, 17, 16, 17, 18, 19,
                   20, 21, 20, 21, 22, 23, 24, 25, 24, 25, 26, 27, 28, 29, 28, 29, 30, 31, 32, 1}
local mixing = {16, 7, 20, 21, 29, 12, 28, 17, 1, 15, 23, 26, 5, 18, 31, 10, 2, 8, 24, 14, 32, 27, 3, 9, 19, 13, 30, 6,
                22, 11, 4, 25}
local shifts = {1, 1, 2, 2, 2, 2, 2, 2, 1, 2, 2, 2, 2, 2, 2, 1}
-- The substitution boxes: a hexadecimal digit for each of 4 rows of 16 columns.
local boxes = {
    "e4d12fb83a6c59070f74e2d1a6cb953841e8d62bfc973a50fc8249175b3ea06d",
    "f18e6b34972dc05a3d47f28ec01a69b50e7ba4d158c6932fd8a13f42b67c05e9",
    "a09e63f51dc7b428d709346a285ecbf1d6498f30b12c5ae71ad069874fe3b52c",
    "7de3069a1285bc4fd8b56f03472c1ae9a690cb7df13e52843f06a1d8945bc72e",
    "2c417ab6853fd0e9eb2c47d150fa3986421bad78f9c5630eb8c71e2d6f09a453",
    "c1af92680d34e75baf427c9561de0b389ef528c3704a1db6432c95fabe17608d",
    "4b2ef08d3c975a61d0b7491ae35c2f8614bdc37eaf6805926bd814a7950fe23c",
    "d2846fb1a93e50c71fd8a374c56b0e927b419ce206adf35821e74a8dfc90356b",
}

local function permute(bits, places)
    local result = {}
    for i, place in ipairs(places) do
        result[i] = bits[place]
    end
    return result
end

local function to_bits(text)
    local bits = {}
    for i = 1, #text do
        local byte = text:byte(i)
        for place = 7, 0, -1 do
            bits[#bits + 1] = math.floor(byte / 2 ^ place) % 2
        end
    end
    return bits
end

local function to_text(bits)
    local text = {}
    for i = 1, #bits, 8 do
        local byte = 0
        for place = 0, 7 do
            byte = 2 * byte + bits[i + place]
        end
        text[#text + 1] = string.char(byte)
    end
    return table.concat(text)
end

-- The 16 round keys, in the order of encryption.
local function round_keys(key)
    local halves = permute(to_bits(key), choice1)
    local keys = {}
    local turned = 0
    for round, shift in ipairs(shifts) do
        turned = turned + shift
        local rotated = {}
        for i = 0, 27 do
            rotated[i + 1] = halves[(i + turned) % 28 + 1]
            rotated[i + 29] = halves[(i + turned) % 28 + 29]
        end
        keys[round] = permute(rotated, choice2)
    end
    return keys
end

local function mix(half, key)
    local wide = permute(half, expansion)
    local result = {}
    for box = 0, 7 do
        local six = {}
        for i = 1, 6 do
            six[i] = (wide[6 * box + i] + key[6 * box + i]) % 2
        end
        local place = 32 * six[1] + 16 * six[6] + 8 * six[2] + 4 * six[3] + 2 * six[4] + six[5]
        local digit = tonumber(boxes[box + 1]:sub(place + 1, place + 1), 16)
        for place4 = 3, 0, -1 do
            result[#result + 1] = math.floor(digit / 2 ^ place4) % 2
        end
    end
    return permute(result, mixing)
end

local function decrypt_block(block, keys)
    local bits = permute(to_bits(block), initial)
    local left = {table.unpack(bits, 1, 32)}
    local right = {table.unpack(bits, 33, 64)}
    for round = 16, 1, -1 do
        local mixed = mix(right, keys[round])
        local next_right = {}
        for i = 1, 32 do
            next_right[i] = (left[i] + mixed[i]) % 2
        end
        left, right = right, next_right
    end
    for i = 1, 32 do
        right[32 + i] = left[i] -- the halves leave the last round swapped
    end
    return to_text(permute(right, final))
end

-- Decrypts whole blocks of 8 bytes, each on its own.
local function decrypt(text, key)
    local keys = round_keys(key)
    local blocks = {}
    for i = 1, #text - 7, 8 do
        blocks[#blocks + 1] = decrypt_block(text:sub(i, i + 7), keys)
    end
    return table.concat(blocks)
end

return {decrypt = decrypt}
